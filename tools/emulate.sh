#!/usr/bin/env bash
# Boots the emulated card and the daemon in the foreground, for driving them by
# hand from another terminal. Ctrl-C stops them in order.
#
#   tools/emulate.sh [BUILD_DIR [orv-sandbox options...]]
#   e.g. tools/emulate.sh build --devices 2 --vfs 1
set -euo pipefail
build=${1:-build}
state=${ORV_STATE:-$build/emulate-state}
bin=$build/bin
cat <<EOT
Booting the emulated card and the daemon; state directory: $state
From another terminal:
  cat $state/sandbox.env                              where everything is
  tail -f $state/var/log/orv/system.log               the daemon's log

  The host side (each request on a link of its own; --help lists them all):
  $bin/orv-host --state $state test                   the version handshake
  $bin/orv-host --state $state start --pid 4242 --cp --zarn
                                                      start a host's sub-processes (they end with the link)
  printf 'open a\nsend a start --pid 7 --cp\nexpect a 8\nsend a close --pid 7\nexpect a 9\n' |
    $bin/orv-host --state $state session              several steps on one link (or several links)
  $bin/orv-emu-mkpkg --out /tmp/5_Velkan512-aicpu_syskernels.tar.gz
  $bin/orv-host --state $state send-package /tmp/5_Velkan512-aicpu_syskernels.tar.gz
  $bin/orv-host --state $state check-package          the installed package's check code

  The card (--help lists everything):
  $bin/orv-emu-ctl --state $state devices             the device table (also: groups, appmon, processes, events)
  $bin/orv-emu-ctl --state $state fail halGrpAttach 5 the next halGrpAttach returns 5
  $bin/orv-emu-ctl --state $state standin zarn crash 500
                                                      collective services crash 500 ms after starting
  $bin/orv-emu-ctl --state $state vf create 1         the driver announces VF 1
  $bin/orv-sandbox --state $state --enter -- sh       a shell inside the sandbox
Ctrl-C stops the daemon, then the card.
EOT
exec "$bin/orv-sandbox" --state "$state" --boot --log-stderr "${@:2}"
