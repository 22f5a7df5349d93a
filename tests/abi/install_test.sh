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
PKG_CONFIG_PATH=$libdir/pkgconfig "$(dirname "$0")/foreign_projects.sh" "$version" -DCMAKE_PREFIX_PATH="$prefix"
echo "installed, and linked from C and from C++"
