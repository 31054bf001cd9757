#!/usr/bin/env bash
# Boots the emulated card and the daemon in the foreground, for driving them by
# hand from another terminal. Ctrl-C stops them in order.
set -euo pipefail
build=${1:-build}
state=${ORV_STATE:-$build/emulate-state}
cat <<EOT
Booting the emulated card and the daemon; state directory: $state
From another terminal:
  cat $state/sandbox.env                             where everything is
  tail -f $state/var/log/orv/system.log              the system log
  $build/bin/orv-emu-ctl --state $state devices      the device table (also: groups, appmon, processes, faults)
  $build/bin/orv-emu-ctl --state $state fail drvGetDevNum 5 1
                                                     make the next drvGetDevNum return 5
  $build/bin/orv-sandbox --state $state --enter -- sh
                                                     a shell inside the sandbox
Ctrl-C stops the daemon, then the card.
EOT
exec "$build/bin/orv-sandbox" --state "$state" --boot --log-stderr "${@:2}"
