#!/bin/sh
# Tears down what create_vf_config.sh set up for VF $1.
set -eu
vf=${1:?usage: destroy_vf_config.sh VFID}
case $vf in
    ''|*[!0-9]*) echo "destroy_vf_config.sh: bad VF id '$vf'" >&2; exit 2 ;;
esac
if [ -e /run/orv-card/fail_destroy_vf ]; then
    echo "destroy_vf_config.sh: tear-down of VF $vf refused" >&2
    exit 1
fi
rm -rf /home/hdc-trusted/dev*/"vfid$vf" "/sys/fs/cgroup/memory/usermemory/vf$vf" \
       "/var/aicpu_custom_runner$vf" "/home/CustAiCpuUser$vf"
