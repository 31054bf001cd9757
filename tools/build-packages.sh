#!/usr/bin/env bash
# Builds the Debian packages with dpkg-buildpackage from a clean copy of the
# source (so that no build tree of the working copy gets in, and the results
# land beside the copy instead of in the working copy's parent):
#
#   tools/build-packages.sh [OUT_DIR]        (default build-deb)
#
# Native: orvdaemon and orv-emu for this machine's architecture. Unless this
# machine is arm64: orvdaemon for arm64 too, cross-built with the card's
# toolchain (build profile pkg.orvdaemon.cardonly). The test suite is not run
# again here (nocheck): `make test` runs it.
set -euo pipefail
src=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
out=${1:-$src/build-deb}
mkdir -p "$out"
out=$(cd "$out" && pwd)

rm -rf "$out"/src "$out"/*.deb "$out"/*.ddeb "$out"/*.changes "$out"/*.buildinfo
mkdir -p "$out/src"
if git -C "$src" rev-parse --is-inside-work-tree >/dev/null 2>&1; then
    # Tracked files and new ones not ignored, as they are in the working copy.
    (cd "$src" && git ls-files -z --cached --others --exclude-standard | xargs -0 -r sh -c \
        'for f; do [ -e "$f" ] && printf "%s\0" "$f"; done' sh) |
        tar -C "$src" --null -T - -cf - | tar -C "$out/src" -xf -
else
    tar -C "$src" --exclude='./build*' --exclude='./obj-*' -cf - . | tar -C "$out/src" -xf -
fi

jobs=$(nproc)
export DEB_BUILD_OPTIONS="nocheck parallel=$jobs"
cd "$out/src"
t=$SECONDS
echo "build-packages: $(dpkg --print-architecture) (orvdaemon, orv-emu)"
dpkg-buildpackage --build=binary --no-sign --build-profiles=nocheck >"$out/build-native.log" 2>&1 ||
    { tail -n 40 "$out/build-native.log"; echo "build-packages: FAILED, see $out/build-native.log" >&2; exit 1; }
echo "build-packages: native done in $((SECONDS - t)) s"
if [[ $(dpkg --print-architecture) != arm64 ]]; then
    t=$SECONDS
    echo "build-packages: arm64 (orvdaemon, cross-built)"
    dpkg-buildpackage --build=any --no-sign --host-arch=arm64 \
        --build-profiles=cross,nocheck,pkg.orvdaemon.cardonly >"$out/build-arm64.log" 2>&1 ||
        { tail -n 40 "$out/build-arm64.log"; echo "build-packages: FAILED, see $out/build-arm64.log" >&2; exit 1; }
    echo "build-packages: arm64 done in $((SECONDS - t)) s"
fi
ls -1 "$out"/*.deb
