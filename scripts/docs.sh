#!/usr/bin/env bash
# Makes the reference of the public headers, and fails when it leaves a name untold. Usage: docs.sh OUTPUT-DIRECTORY
set -euo pipefail
output=$(realpath -m "$1")
cd "$(dirname "${BASH_SOURCE[0]}")/.."
mkdir -p "$output"
complaints=$( (cat docs/Doxyfile && echo "OUTPUT_DIRECTORY = $output") | doxygen - 2>&1) ||
    complaints+=$'\ndoxygen failed'
if [ -n "$complaints" ]; then
    echo "${complaints//$PWD\//}" >&2
    exit 1
fi
echo "reference: $output/html/index.html"
