#!/usr/bin/env bash
# Installs the Debian packages that building, testing and running the emulated
# card need. Quick and silent when everything is already present.
set -euo pipefail

packages=(
    cmake ninja-build g++ clang pkg-config make
    protobuf-compiler libprotobuf-dev
    libssl-dev openssl
    libgtest-dev libgmock-dev libbenchmark-dev
    procps sysvinit-utils tar gzip
)

missing=()
for pkg in "${packages[@]}"; do
    status=$(dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null || true)
    [[ "$status" == "install ok installed" ]] || missing+=("$pkg")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

echo "install-deps: installing ${missing[*]}"
sudo_cmd=()
[[ $(id -u) -eq 0 ]] || sudo_cmd=(sudo)
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
