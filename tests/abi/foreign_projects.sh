#!/usr/bin/env bash
# Builds two foreign projects against the installed library: C with pkg-config, C++ with CMake.
# Usage: foreign_projects.sh VERSION [CMAKE-OPTION...]; PKG_CONFIG_PATH tells where the library is if not in its place.
set -euo pipefail
version=$1
shift
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cat >"$work/host.c" <<'C'
#include <nasctrl/nasctrl.h>
int main(void) { return (int)GetNasPowerOnStatus(); }
C
cp "$work/host.c" "$work/host.cpp"

# The functions that a host supplies are not of interest here.
no_host=-Wl,--unresolved-symbols=ignore-in-shared-libs
[ "$(pkg-config --modversion nasctrl)" = "$version" ]
# shellcheck disable=SC2046
cc -std=c11 -Wall -Werror "$work/host.c" -o "$work/host" $(pkg-config --cflags --libs nasctrl) $no_host

cat >"$work/CMakeLists.txt" <<C
cmake_minimum_required(VERSION 3.25)
project(foreign CXX)
find_package(nasctrl ${version%%.*} REQUIRED)
add_executable(foreign host.cpp)
target_link_libraries(foreign PRIVATE nasctrl::nasctrl)
target_link_options(foreign PRIVATE $no_host)
C
cmake -S "$work" -B "$work/build" "$@" >/dev/null
cmake --build "$work/build" >/dev/null
for program in "$work/host" "$work/build/foreign"; do
    readelf -d "$program" | grep -q "NEEDED.*\[libnasctrl.so.${version%%.*}\]"
done
