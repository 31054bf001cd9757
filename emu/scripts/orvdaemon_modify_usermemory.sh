#!/bin/sh
# Rewrites the memory limit of VF $1's cgroup to $2 bytes.
set -eu
vf=${1:?usage: orvdaemon_modify_usermemory.sh VFID LIMIT}
limit=${2:?usage: orvdaemon_modify_usermemory.sh VFID LIMIT}
case $vf$limit in
    *[!0-9]*) echo "orvdaemon_modify_usermemory.sh: bad arguments '$vf' '$limit'" >&2; exit 2 ;;
esac
cgroup=/sys/fs/cgroup/memory/usermemory/vf$vf
[ -d "$cgroup" ] || { echo "orvdaemon_modify_usermemory.sh: no cgroup for VF $vf" >&2; exit 1; }
echo "$limit" > "$cgroup/memory.limit_in_bytes"
