#!/usr/bin/env bash
# The binary interface: what the library exports, what it takes from its host, and every record of the public headers.
# docs/abi.md tells the rules. Usage: abi.sh check | record
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
recorded=packaging/abi
build=build/abi
library=$build/sysctrl/libnasctrl.so

# describe OUTPUT BINARY OPTION...: without paths, lines and needed libraries, which differ from machine to machine.
describe() {
    abidw --headers-dir include/nasctrl --drop-private-types --no-comp-dir-path --no-corpus-path --no-show-locs \
        --no-elf-needed --type-id-style hash "${@:3}" --out-file "$1" "$2"
}

# Records that are only reached through void pointers show nowhere else.
build_records() {
    {
        (cd include && find nasctrl -name '*.h' | LC_ALL=C sort | sed 's/.*/#include <&>/')
        echo "int nasctrl_records;"
    } >"$build/records.c"
    cc -std=c11 -g -fno-eliminate-unused-debug-types -Iinclude -shared -fPIC -o "$build/records.so" "$build/records.c"
}

# The host contract: what a program that defines nothing lacks of it.
list_contract() {
    local missing status=0
    missing=$("$build/hostcheck/nasctrl-hostcheck" --library "$library" /bin/true) || status=$?
    [ $status -eq 1 ] || { echo "abi: nasctrl-hostcheck ended with $status" >&2; return 1; }
    echo "[abi_whitelist]"
    grep '^  ' <<<"$missing"
}

# Always from a build of its own, so that the description does not depend on what else is being tested.
describe_all() {
    cmake --preset abi >/dev/null
    cmake --build --preset abi --parallel --target nasctrl minimal_host nasctrl-hostcheck >"$build/build.log" || {
        cat "$build/build.log" >&2
        exit 1
    }
    build_records
    list_contract >"$build/contract.list"
    describe "$1/libnasctrl.abi" "$(realpath "$library")" --exported-interfaces-only
    describe "$1/host.abi" "$build/examples/minimal_host/minimal_host" --kmi-whitelist "$build/contract.list"
    describe "$1/records.abi" "$build/records.so" --load-all-types
}

# compare PART OPTION...
compare() {
    abidiff --no-show-locs "${@:2}" "$recorded/$1.abi" "$build/$1.abi"
}

check() {
    local differing=0
    compare libnasctrl || differing=1
    compare host || differing=1
    compare records --non-reachable-types || differing=1
    if [ $differing = 1 ]; then
        echo "abi: differs from $recorded; if that is meant, see docs/abi.md and run ./test --record-abi" >&2
        exit 1
    fi
    echo "abi: as recorded"
}

case ${1:-} in
    record)
        describe_all "$recorded"
        echo "abi: recorded in $recorded"
        ;;
    check)
        describe_all "$build"
        check
        ;;
    *)
        echo "usage: abi.sh check | record" >&2
        exit 2
        ;;
esac
