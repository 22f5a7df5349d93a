#!/usr/bin/env bash
# Formatting, and clang-tidy over every source file that the build directory compiles. Usage: lint.sh BUILD-DIRECTORY
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
git ls-files '*.cpp' '*.c' '*.h' | xargs clang-format --dry-run --Werror
git ls-files 'sysctrl/*.cpp' 'common/*.cpp' 'host/*.cpp' 'storage/*.cpp' 'ctl/*.cpp' \
    'hostcheck/*.cpp' |
    xargs -P "$(nproc)" -n 1 clang-tidy --quiet -p "$1"
echo "lint: clean"
