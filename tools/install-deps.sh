#!/usr/bin/env bash
# Installs the Debian packages a task needs. Quick and silent when everything
# is already present.
#
#   tools/install-deps.sh [SET...]
#
# SET is one of: base (building, testing and running the emulated card; the
# default), fuzz (the fuzz targets), bench (the benchmarks' peers), cross (the
# AArch64 card build). A set that needs a foreign architecture adds it first.
set -euo pipefail

declare -A sets
sets[base]="cmake ninja-build g++ clang pkg-config make
    protobuf-compiler libprotobuf-dev
    libssl-dev openssl
    libgtest-dev libgmock-dev libbenchmark-dev
    procps sysvinit-utils tar gzip"
sets[fuzz]="clang libclang-rt-14-dev"
sets[bench]=""
sets[cross]=""

wanted=("$@")
[[ ${#wanted[@]} -gt 0 ]] || wanted=(base)

missing=()
for set in "${wanted[@]}"; do
    if [[ ! -v "sets[$set]" ]]; then
        echo "install-deps: unknown set '$set' (base, fuzz, bench, cross)" >&2
        exit 2
    fi
    for pkg in ${sets[$set]}; do
        status=$(dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null || true)
        [[ "$status" == "install ok installed" ]] || missing+=("$pkg")
    done
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

echo "install-deps: installing ${missing[*]}"
sudo_cmd=()
[[ $(id -u) -eq 0 ]] || sudo_cmd=(sudo)
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
