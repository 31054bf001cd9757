#!/usr/bin/env bash
# Lets this machine execute AArch64 programs directly, through qemu-user
# (qemu-user-static, from `tools/install-deps.sh cross-test`). The AArch64 unit
# tests start other programs (orv-card-emu) with execve, so running the test
# binary under qemu by hand is not enough: the kernel itself has to hand
# AArch64 executables to qemu, which is what a binfmt_misc entry does.
#
# Quiet when the entry is already there. Needs root and a kernel that lets
# binfmt_misc be mounted; says so and fails otherwise.
set -euo pipefail

dir=/proc/sys/fs/binfmt_misc
entry=$dir/qemu-aarch64
conf=/usr/lib/binfmt.d/qemu-aarch64.conf
sudo_cmd=()
[[ $(id -u) -eq 0 ]] || sudo_cmd=(sudo)

if [[ -e $entry ]]; then
    [[ $(head -n 1 "$entry") == enabled ]] || "${sudo_cmd[@]}" sh -c "echo 1 >'$entry'"
    exit 0
fi
if [[ ! -f $conf ]]; then
    echo "enable-aarch64-binfmt: $conf is missing (tools/install-deps.sh cross-test installs qemu-user-static)" >&2
    exit 1
fi
if [[ ! -e $dir/register ]]; then
    if ! "${sudo_cmd[@]}" mount -t binfmt_misc binfmt_misc "$dir"; then
        echo "enable-aarch64-binfmt: cannot mount binfmt_misc on $dir; AArch64 programs cannot run here" >&2
        exit 1
    fi
fi
# The entry Debian's qemu-user-static ships: the interpreter is opened now (F),
# so it works inside other mount namespaces too.
"${sudo_cmd[@]}" sh -c "cat '$conf' >'$dir/register'"
echo "enable-aarch64-binfmt: AArch64 programs now run through $(sed -n 's/^interpreter //p' "$entry")"
