#!/bin/sh
# Run by the app monitor when the daemon stops beating. On the card it would
# restart the daemon; on the emulated card it only records that it ran.
log=${ORV_EMU_LOG_FILE:-/var/log/orv/system.log}
printf '%s EVENT orvdaemon_monitor.sh[%s]: orvdaemon_monitor.sh ran: pid %s stopped beating\n' \
    "$(date '+%Y-%m-%d %H:%M:%S.000000')" "$$" "${ORV_APPMON_PID:-unknown}" >> "$log"
