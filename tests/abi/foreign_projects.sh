#!/usr/bin/env bash
# Builds foreign projects against the installed library: C with pkg-config, C++ with CMake, and the installed minimal
# host in the ways that the embedding guide tells.
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

prefix=$(pkg-config --variable=prefix nasctrl)
example=$prefix/share/doc/libnasctrl-dev/examples/minimal_host
cp -r "$example" "$work/minimal"
# shellcheck disable=SC2046
(cd "$work/minimal" && cc -Wall -Wextra -Werror -rdynamic ./*.c -o minimal_host \
    $(pkg-config --cflags --libs nasctrl) -pthread)
cmake -S "$work/minimal" -B "$work/minimal/build" "$@" >/dev/null
cmake --build "$work/minimal/build" >/dev/null
LD_LIBRARY_PATH=$(pkg-config --variable=libdir nasctrl)
export LD_LIBRARY_PATH
for host in "$work/minimal/minimal_host" "$work/minimal/build/minimal_host"; do
    "$host" "$work/minimal" | diff "$example/expected_output.txt" -
done
unset LD_LIBRARY_PATH

# Judged by the installed program, which finds the installed library by itself.
hostcheck=$prefix/bin/nasctrl-hostcheck
if [ -x "$hostcheck" ]; then
    for host in "$work/minimal/minimal_host" "$work/minimal/build/minimal_host"; do
        "$hostcheck" "$host" | grep -qx "the library can be loaded into it"
    done
    ! "$hostcheck" /bin/true >"$work/verdict"
    grep -qx "the library cannot be loaded into it: it lacks functions" "$work/verdict"
fi
