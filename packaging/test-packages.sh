#!/usr/bin/env bash
# Builds the Debian packages, installs them in a clean Debian 12, uses them there as an operator and as an engineer who
# links with the library would, and takes them away again without a trace. Needs root.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/packages.sh

build=build/package
cache=$PWD/build/debian12 # the clean system, and what apt has fetched
mirror=http://deb.debian.org/debian
tools=(bash-completion cmake g++ gcc libc6-dev make man-db pkg-config) # what the steps below use, but not the packages

[ "$(id -u)" -eq 0 ] || { echo "packages: only root can make a clean Debian 12 to install them in" >&2; exit 1; }

title() { printf '== %s\n' "$*"; }
fail() {
    echo "packages: $*" >&2
    exit 1
}

# Runs a command in the clean system, with processes and mounts of its own: whatever it leaves behind ends with it.
in_root() {
    unshare --mount --pid --fork --kill-child env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 \
        DEBIAN_FRONTEND=noninteractive ROOT="$root" CACHE="$cache" sh -c '
        mount -t proc proc "$ROOT/proc" && mount --bind "$CACHE/archives" "$ROOT/var/cache/apt/archives" &&
        exec chroot "$ROOT" "$@"' sh "$@"
}
apt_get() {
    in_root apt-get -qq -y -o APT::Install-Recommends=false -o APT::Keep-Downloaded-Packages=true "$@" \
        >"$root.apt" 2>&1 || { cat "$root.apt" >&2; fail "apt-get $* failed"; }
}

build_packages() {
    title "Build the packages"
    install_packages packaging/packages-build.txt packaging/packages-packaging.txt
    cmake --preset package >/dev/null
    cmake --build --preset package --parallel
    rm -f "$build"/*.deb
    (cd "$build" && cpack >cpack.log 2>&1) || { cat "$build/cpack.log" >&2; fail "cpack failed"; }
    version=$(sed -n 's/^CMAKE_PROJECT_VERSION:.*=//p' "$build/CMakeCache.txt")
    debs=("$build"/*.deb)
    [ ${#debs[@]} -eq 3 ] || fail "there should be three packages: ${debs[*]}"
    # The packages go into no archive with a list of bugs, and CPack itself writes a call of ldconfig.
    lintian --allow-root --fail-on error,warning \
        --suppress-tags initial-upload-closes-no-bugs,maintscript-calls-ldconfig "${debs[@]}"
}

use_mirrors_of_this_machine() {
    rm -f "$root/etc/apt/sources.list"
    cp /etc/apt/sources.list "$root/etc/apt/" 2>/dev/null || true
    cp /etc/apt/sources.list.d/debian.sources "$root/etc/apt/sources.list.d/" 2>/dev/null || true
    apt-config dump | grep -E '^Acquire::(https?::|Check-)' >"$root/etc/apt/apt.conf.d/00mirror" || true
    cp /etc/resolv.conf /etc/hosts "$root/etc/"
}

# The system of a fresh installation with the tools that the test itself uses; made once.
make_clean_system() {
    title "A clean Debian 12"
    mkdir -p "$cache/archives/partial"
    root=$(mktemp -d "$cache/root.XXXXXX")
    chmod 755 "$root"
    trap 'rm -rf "$root" "$root.booted" "$root.apt"' EXIT
    if [ -f "$cache/base.tar" ]; then
        tar -C "$root" -xf "$cache/base.tar"
        apt_get update
        return
    fi
    debootstrap --variant=minbase --include=systemd,systemd-sysv bookworm "$root" "$mirror" >"$cache/debootstrap.log" ||
        { tail -n 3 "$cache/debootstrap.log" >&2; fail "debootstrap failed"; }
    use_mirrors_of_this_machine
    apt_get update
    apt_get install "${tools[@]}"
    tar -C "$root" -cf "$cache/base.tar.new" .
    mv "$cache/base.tar.new" "$cache/base.tar"
}

install_packages_in_root() { apt_get install "$@" $(cd "$root" && printf '/%s ' tmp/packages/*.deb); }

# Every file of the system and the users it knows, but not what apt, dpkg and caches write about any package.
snapshot() {
    (cd "$root" && find . \( -path ./var/cache -o -path ./var/log -o -path ./var/lib/dpkg -o -path ./var/lib/apt \
        -o -path ./tmp -o -path ./proc -o -path ./run \) -prune -o -printf '%p %M %u %g\n' | sort && cat etc/passwd etc/group)
}

install_in_root() {
    title "Install"
    snapshot >"$cache/before"
    mkdir "$root/tmp/packages"
    cp "${debs[@]}" "$root/tmp/packages/"
    install_packages_in_root
    in_root dpkg --verify nasctrl libnasctrl1 libnasctrl-dev
    [ "$(in_root stat -c %U:%G /opt/dr/config)" = nasctrl:nasctrl ] || fail "/opt/dr/config is not the service's"
    ! in_root systemctl is-enabled --quiet nasctrld.service || fail "the service should wait for its operator"
}

check_units() {
    title "The units are valid, and their sandbox is tight"
    local unit said
    for unit in nasctrld nasstored; do
        said=$(in_root systemd-analyze verify "$unit.service" 2>&1) && [ -z "$said" ] || fail "$unit.service: $said"
        in_root systemd-analyze security --offline=yes --threshold=20 "$unit.service" | tail -n 1
    done
}

use_by_hand() {
    title "A node by hand, as the unit starts it"
    cp packaging/test/by-hand.sh scripts/watch.sh "$root/tmp/"
    unshare --net sh -c 'ip link set lo up && exec "$@"' sh "$BASH" -c \
        "$(declare -f in_root); root=${root@Q} cache=${cache@Q}; in_root bash /tmp/by-hand.sh"
}

# A copy of the system is booted, because this ends with a purge.
use_by_systemctl() {
    title "The services under systemctl, in their sandbox"
    local booted=$root.booted
    cp -a "$root" "$booted"
    cp packaging/test/by-systemctl.sh scripts/watch.sh "$booted/root/"
    cat >"$booted/etc/systemd/system/use.service" <<'UNIT'
[Unit]
After=multi-user.target
[Service]
Type=oneshot
StandardOutput=file:/root/said
StandardError=file:/root/said
ExecStart=/bin/bash /root/by-systemctl.sh
ExecStart=/bin/touch /root/passed
ExecStopPost=/bin/systemctl poweroff --force --force
[Install]
WantedBy=multi-user.target
UNIT
    chroot "$booted" systemctl --quiet enable use.service
    timeout --kill-after=5 300 systemd-nspawn --quiet --register=no --keep-unit --private-network --boot \
        --directory="$booted" </dev/null >"$cache/boot.log" 2>&1 || true
    [ -e "$booted/root/passed" ] || { tail -n 20 "$cache/boot.log" "$booted/root/said" >&2; fail "see above"; }
    rm -rf "$booted"
}

use_as_engineer() {
    title "Foreign projects, in C with pkg-config and in C++ with CMake"
    cp tests/abi/foreign_projects.sh "$root/tmp/"
    in_root bash /tmp/foreign_projects.sh "$version"
}

reinstall() {
    title "An upgrade keeps what the operator changed"
    echo "# ours" >>"$root/etc/nasctrl/nasctrld.conf"
    echo "# ours" >>"$root/opt/marovesta/brisqueta/conf/dpc.conf"
    install_packages_in_root --reinstall
    local file
    for file in etc/nasctrl/nasctrld.conf opt/marovesta/brisqueta/conf/dpc.conf; do
        [ "$(tail -n 1 "$root/$file")" = "# ours" ] || fail "/$file was overwritten"
    done
}

remove_from_root() {
    title "Remove, then purge"
    apt_get remove nasctrl
    [ ! -e "$root/usr/sbin/nasctrld" ] || fail "nasctrld is still there"
    [ -e "$root/etc/nasctrl/nasctrld.conf" ] || fail "a removal should leave the configuration"
    apt_get purge nasctrl libnasctrl-dev libnasctrl1
    apt_get autoremove --purge
    snapshot >"$cache/after"
    [ ! -e "$root/run/nasctrl" ] || fail "/run/nasctrl is still there"
    diff "$cache/before" "$cache/after" || fail "the purge left or took the above"
}

# What a deployment has put under /opt is not the package's, not even when it is purged.
keep_a_deployment() {
    title "A deployment that was there first stays"
    local file=$root/opt/marovesta/brisqueta/conf/dpc.conf
    mkdir -p "$(dirname "$file")"
    cp examples/node1/opt/marovesta/brisqueta/conf/dpc.conf "$file"
    echo "# ours" >>"$file"
    install_packages_in_root
    apt_get purge nasctrl libnasctrl-dev libnasctrl1
    [ "$(tail -n 1 "$file")" = "# ours" ] || fail "$file was touched"
    [ ! -e "$root/opt/ostrak" ] || fail "/opt/ostrak should be gone"
}

build_packages
make_clean_system
install_in_root
check_units
use_by_systemctl
use_by_hand
use_as_engineer
reinstall
remove_from_root
keep_a_deployment
title "Packages: all steps passed"
