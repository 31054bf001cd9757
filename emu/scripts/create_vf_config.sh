#!/bin/sh
# Sets up what VF $1 needs on the emulated card: its trusted directory on every
# device, its memory cgroup, its custom compute program and its custom-kernel
# user's home. Exits non-zero when the VF cannot be configured.
set -eu
vf=${1:?usage: create_vf_config.sh VFID}
case $vf in
    ''|*[!0-9]*) echo "create_vf_config.sh: bad VF id '$vf'" >&2; exit 2 ;;
esac
if [ -e /run/orv-card/fail_create_vf ]; then
    echo "create_vf_config.sh: configuration of VF $vf refused" >&2
    exit 1
fi

devices=$(cat /run/orv-card/devices)
dev=0
while [ "$dev" -lt "$devices" ]; do
    mkdir -p "/home/hdc-trusted/dev$dev/vfid$vf"
    dev=$((dev + 1))
done

cgroup=/sys/fs/cgroup/memory/usermemory/vf$vf
mkdir -p "$cgroup"
cat /run/orv-card/vf_memory_limit > "$cgroup/memory.limit_in_bytes"
cat /run/orv-card/vf_memory_usage > "$cgroup/memory.usage_in_bytes"

if [ -e /var/aicpu_custom_runner ]; then
    ln -f /var/aicpu_custom_runner "/var/aicpu_custom_runner$vf" 2>/dev/null ||
        cp -f /var/aicpu_custom_runner "/var/aicpu_custom_runner$vf"
fi
mkdir -p "/home/CustAiCpuUser$vf"
