#!/usr/bin/env bash
# Boots the emulated card with the daemon for a few seconds, shows the
# daemon's start-up milestones from the system log, then shuts it down and
# checks that nothing of the sandbox is left behind.
set -euo pipefail

build=${1:-build}
bin=$build/bin
state=$build/demo-state
log=$state/var/log/orv/system.log

say() { printf '\033[1m== %s\033[0m\n' "$*"; }
milestones() {
    # The daemon's progress lines, without the log's own prefix.
    grep -E '\[OrvEVENT\]|\[OrvDaemon\] (ORV Start enter|OrvDaemon::Destroy|Destroy deviceId)' "$log" |
        sed -E 's/^[0-9-]+ ([0-9:.]+) ([A-Z]+) [^:]+: \[[^]]*\]/\1 \2 /; s/,\[[^]]*\][0-9]+$//'
}

say "Booting the emulated card (2 devices) and the daemon in a sandbox: $state"
"$bin/orv-sandbox" --state "$state" --boot --devices 2 &
sandbox=$!
trap 'kill -TERM $sandbox 2>/dev/null || true' EXIT

for _ in $(seq 1 100); do
    [ -f "$state/sandbox.env" ] && break
    kill -0 $sandbox 2>/dev/null || { echo "demo: the sandbox stopped early"; exit 1; }
    sleep 0.1
done
[ -f "$state/sandbox.env" ] || { echo "demo: the daemon did not come up"; exit 1; }

say "sandbox.env (what tools outside the sandbox use)"
cat "$state/sandbox.env"

say "Start-up milestones from the system log"
milestones

say "The card as the emulator sees it"
"$bin/orv-emu-ctl" --state "$state" devices
"$bin/orv-emu-ctl" --state "$state" appmon
"$bin/orv-emu-ctl" --state "$state" processes

say "Running for a few seconds"
sleep 3

say "Stopping (SIGTERM); the daemon finishes its heartbeat period, then shuts down in order"
sandbox_ns=$(readlink "/proc/$(sed -n 's/^ORV_SANDBOX_PID=//p' "$state/sandbox.env")/ns/pid")
kill -TERM $sandbox
wait $sandbox
status=$?
trap - EXIT

say "Shutdown milestones"
milestones | sed -n '/Destroy/,$p'

left=0
for ns in /proc/[0-9]*/ns/pid; do
    [ "$(readlink "$ns" 2>/dev/null)" = "$sandbox_ns" ] && left=$((left + 1))
done
say "Sandbox exit status $status; processes of the sandbox left behind: $left"
[ $status -eq 0 ] && [ $left -eq 0 ]
