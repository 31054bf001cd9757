#!/usr/bin/env bash
# Installs the Debian packages a task needs. Quick and silent when everything
# is already present.
#
#   tools/install-deps.sh [SET...]
#
# SET is one of: base (building, testing and running the emulated card; the
# default), fuzz (the fuzz targets), bench (the benchmarks' peers), cross (the
# AArch64 card build), cross-test (the AArch64 unit tests under emulation),
# package (building and checking the Debian packages). A set that needs a
# foreign architecture adds it first.
set -euo pipefail

declare -A sets
sets[base]="cmake ninja-build g++ clang clang-format clang-tidy pkg-config make
    protobuf-compiler libprotobuf-dev
    libssl-dev openssl
    libgtest-dev libgmock-dev libbenchmark-dev
    procps sysvinit-utils tar gzip"
sets[fuzz]="clang libclang-rt-14-dev"
sets[bench]="supervisor"
# dpkg-buildpackage with debhelper, the manual pages made from --help, lintian.
sets[package]="debhelper dpkg-dev fakeroot help2man lintian"
sets[cross]="g++-aarch64-linux-gnu binutils-aarch64-linux-gnu libprotobuf-dev:arm64"
# Foreign architectures (dpkg's names) whose packages a set installs.
declare -A set_arches
set_arches[cross]="arm64"
# The AArch64 unit tests, run through user-mode emulation (make card-test).
sets[cross-test]="libgtest-dev:arm64 libgmock-dev:arm64 libssl-dev:arm64 qemu-user-static"
set_arches[cross-test]="arm64"

wanted=("$@")
[[ ${#wanted[@]} -gt 0 ]] || wanted=(base)

# Whether a package is installed: of the native architecture (or "all") unless
# the name says `name:arch`. Once a foreign architecture is added, a bare name
# can match the packages of both.
native=$(dpkg --print-architecture)
installed() {
    local want=$native
    [[ $1 == *:* ]] && want=${1##*:}
    dpkg-query -W -f='${Status} ${Architecture}\n' "$1" 2>/dev/null | grep -Ex "install ok installed ($want|all)" >/dev/null
}

missing=()
arches=()
for set in "${wanted[@]}"; do
    if [[ ! -v "sets[$set]" ]]; then
        echo "install-deps: unknown set '$set' (base, fuzz, bench, cross, cross-test, package)" >&2
        exit 2
    fi
    [[ -v "set_arches[$set]" ]] && arches+=(${set_arches[$set]})
    for pkg in ${sets[$set]}; do
        installed "$pkg" || missing+=("$pkg")
    done
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

echo "install-deps: installing ${missing[*]}"
sudo_cmd=()
[[ $(id -u) -eq 0 ]] || sudo_cmd=(sudo)
export DEBIAN_FRONTEND=noninteractive
for arch in "${arches[@]}"; do
    # A package of an architecture dpkg does not know yet counts as missing, so
    # the architecture is added here and the update below fetches its lists.
    if ! dpkg --print-foreign-architectures | grep -qx "$arch"; then
        echo "install-deps: adding architecture $arch"
        "${sudo_cmd[@]}" dpkg --add-architecture "$arch"
    fi
done
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
