#!/usr/bin/env bash
# Installs the build into an empty folder, builds foreign projects against it, and looks at what it installed.
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

# Documents and examples lie with what they are about; what makes the reference is no document.
documents=$prefix/share/doc
if [ -d "$documents/nasctrl" ]; then
    [ -f "$documents/nasctrl/examples/cluster/nasctrld.conf" ]
    [ -f "$documents/nasctrl/examples/node1/nasctrld.conf" ]
    [ -z "$(find "$documents/nasctrl" -iname '*doxy*' -o -name embedding.md -o -name abi.md)" ]
fi
[ "$(cd "$documents/libnasctrl-dev" && echo *)" = "abi.md embedding.md examples" ]
echo "installed, and linked from C and from C++"
