#!/usr/bin/env bash
# Checks the packages tools/build-packages.sh made:
#
#   tools/check-packages.sh [OUT_DIR]        (default build-deb)
#
#  - lintian on each: no error, and no warning that debian/*.lintian-overrides
#    does not justify (the README lists those);
#  - the orvdaemon packages hold nothing of the emulated card, and systemd
#    accepts their unit;
#  - nothing in any package refers to the tree it was built in;
#  - a smoke test of orv-emu unpacked with dpkg -x into a temporary directory:
#    the card booted from there, one host's start and close with orv-host, the
#    card's status view, and an orderly stop.
set -euo pipefail
src=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
out=$(cd "${1:-$src/build-deb}" && pwd)
arch=$(dpkg --print-architecture)
shopt -s nullglob

fail() {
    echo "check-packages: FAIL: $*" >&2
    exit 1
}

debs=("$out"/*.deb)
((${#debs[@]} > 0)) || fail "no packages in $out; run tools/build-packages.sh first"

# ---- lintian ----
for changes in "$out"/*.changes; do
    echo "check-packages: lintian $(basename "$changes")"
    lintian --fail-on error,warning --display-level '>=warning' "$changes" ||
        fail "lintian found errors or unjustified warnings in $(basename "$changes")"
done

# ---- contents ----
scratch=$(mktemp -d)
sandbox_pid=
cleanup() {
    if [[ -n $sandbox_pid ]] && kill -0 "$sandbox_pid" 2>/dev/null; then
        kill -TERM "$sandbox_pid" 2>/dev/null || true
        wait "$sandbox_pid" 2>/dev/null || true
    fi
    rm -rf "$scratch"
}
trap cleanup EXIT

for deb in "${debs[@]}"; do
    name=$(basename "$deb")
    dir=$scratch/contents/$name
    mkdir -p "$dir"
    dpkg-deb -x "$deb" "$dir"
    if grep -rlaF "$out/src" "$dir" >/dev/null; then
        fail "$name refers to the tree it was built in: $(grep -rlaF "$out/src" "$dir" | head -n 3 | paste -sd ' ')"
    fi
    if [[ $name == orvdaemon_* ]]; then
        for trace in liborv_emu_ 3orv3emu; do
            if grep -rlaF -- "$trace" "$dir" >/dev/null; then
                fail "$name holds '$trace', a trace of the emulated card: $(grep -rlaF -- "$trace" "$dir" | head -n 3 | paste -sd ' ')"
            fi
        done
        [[ -x $dir/usr/sbin/orvdaemon && -f $dir/lib/systemd/system/orvdaemon.service ]] ||
            fail "$name lacks the daemon or its unit"
        grep -qx 'Type=notify' "$dir/lib/systemd/system/orvdaemon.service" || fail "$name: the unit is not Type=notify"
        # systemd's own reading of the unit: any unknown key or bad value is a fault
        # (only the executable's absence from this machine is expected).
        if command -v systemd-analyze >/dev/null; then
            complaints=$(systemd-analyze verify --man=no "$dir/lib/systemd/system/orvdaemon.service" 2>&1 |
                grep -v 'orvdaemon is not executable' || true)
            [[ -z $complaints ]] || fail "$name: systemd-analyze verify: $complaints"
        fi
    fi
    echo "check-packages: $name: $(dpkg-deb -f "$deb" Architecture), $(find "$dir" -type f | wc -l) files"
done

# ---- smoke test of the unpacked emulated card ----
emu=("$out"/orv-emu_*_"$arch".deb)
((${#emu[@]} == 1)) || fail "no orv-emu package for $arch"
root=$scratch/unpacked
dpkg -x "${emu[0]}" "$root"
state=$scratch/state
bin=$root/usr/bin
# Nothing of the build may be reached: a plain PATH, and / as the directory.
export PATH=/usr/sbin:/usr/bin:/sbin:/bin
cd /
echo "check-packages: booting the emulated card from $root"
"$bin/orv-sandbox" --state "$state" --boot --devices 2 --vfs 1 >"$scratch/sandbox.out" 2>&1 &
sandbox_pid=$!
for _ in $(seq 300); do
    grep -q '^ORV_DAEMON_PID=' "$state/sandbox.env" 2>/dev/null && break
    kill -0 "$sandbox_pid" 2>/dev/null || { cat "$scratch/sandbox.out"; fail "the sandbox ended before the daemon was ready"; }
    sleep 0.1
done
grep -q '^ORV_DAEMON_PID=' "$state/sandbox.env" 2>/dev/null || { cat "$scratch/sandbox.out"; fail "the daemon never got ready"; }
# One host's start and close, its link held open in between while the
# status view shows it.
"$bin/orv-host" --state "$state" session >"$scratch/host.out" 2>&1 <<'EOT' &
open a
send a start --pid 4242 --cp --zarn
expect a 8 --code 0
sleep 4000
send a close --pid 4242
expect a 9 --code 0
EOT
host_pid=$!
shown=0
for _ in $(seq 100); do
    if "$bin/orv-emu-ctl" --state "$state" status >"$scratch/status.out" 2>&1 &&
        grep -q 'host 4242: HDC session [0-9]*, runs zarn, compute' "$scratch/status.out"; then
        shown=1
        break
    fi
    sleep 0.05
done
cat "$scratch/status.out"
((shown)) || fail "the status view never showed the host and its sub-processes"
wait "$host_pid" || { cat "$scratch/host.out" "$state/var/log/orv/system.log"; fail "start and close failed"; }
kill -TERM "$sandbox_pid"
status=0
wait "$sandbox_pid" || status=$?
sandbox_pid=
((status == 0)) || { cat "$scratch/sandbox.out"; fail "the sandbox stopped with status $status"; }
echo "check-packages: the unpacked emulated card booted, served a start and a close, and stopped"
