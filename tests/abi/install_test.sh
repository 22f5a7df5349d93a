#!/usr/bin/env bash
# Installs the build into an empty folder, and builds foreign projects against it.
# Usage: install_test.sh CMAKE BUILD-DIRECTORY VERSION
set -euo pipefail
cmake=$1 build=$2 version=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

"$cmake" --install "$build" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(find "$prefix" -name libnasctrl.so)")
[ "$(readlink "$libdir/libnasctrl.so")" = "libnasctrl.so.${version%%.*}" ]
[ "$(readlink "$libdir/libnasctrl.so.${version%%.*}")" = "libnasctrl.so.$version" ]
readelf -d "$libdir/libnasctrl.so" | grep -q "soname: \[libnasctrl.so.${version%%.*}\]"
export PKG_CONFIG_PATH=$libdir/pkgconfig
"$(dirname "$0")/foreign_projects.sh" "$version" -DCMAKE_PREFIX_PATH="$prefix"

# The minimal host, as the embedding guide builds it: from a copy, with a plain compiler and with CMake.
if [ -x "$prefix/bin/nasctrl-hostcheck" ]; then
    example=$(cd "$(dirname "$0")/../../examples/minimal_host" && pwd)
    cp -r "$example" "$work/minimal"
    # shellcheck disable=SC2046
    (cd "$work/minimal" && cc -Wall -Wextra -Werror -rdynamic ./*.c -o minimal_host \
        $(pkg-config --cflags --libs nasctrl) -pthread)
    LD_LIBRARY_PATH=$libdir "$work/minimal/minimal_host" "$work/minimal" | diff "$example/expected_output.txt" -
    "$cmake" -S "$work/minimal" -B "$work/minimal/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
    "$cmake" --build "$work/minimal/build" >/dev/null
    "$work/minimal/build/minimal_host" "$work/minimal" | diff "$example/expected_output.txt" -

    # Judged by the installed program, which finds the installed library by itself.
    for host in "$work/minimal/minimal_host" "$work/minimal/build/minimal_host"; do
        "$prefix/bin/nasctrl-hostcheck" "$host" | grep -qx "the library can be loaded into it"
    done
    ! "$prefix/bin/nasctrl-hostcheck" /bin/true >"$work/verdict"
    grep -qx "the library cannot be loaded into it: it lacks functions" "$work/verdict"
fi
echo "installed, and linked from C and from C++"
