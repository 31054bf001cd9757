#!/bin/sh
# Lays out, inside a fresh sandbox, the files the card platform would have
# installed. Run by orv-sandbox after its mounts, with:
#   ORV_LAYOUT_DEVICES    number of devices
#   ORV_LAYOUT_VFS        VFs present at boot, comma-separated (may be empty)
#   ORV_LAYOUT_SHARE      directory holding the platform scripts
#   ORV_LAYOUT_STANDIN    the sub-process stand-in program (may be absent)
#   ORV_LAYOUT_PROGRAMS   programs put on the sandbox's PATH (the daemon, orv-emu-ctl, ...)
#   ORV_LAYOUT_IMGVERIFY  the image verification library (may be absent)
#   ORV_LAYOUT_ENV_SCRIPT file to install as the daemon's environment script (may be empty)
#   ORV_LAYOUT_VF_LIMIT, ORV_LAYOUT_VF_USAGE  initial memory cgroup values of each VF
set -eu

share=$ORV_LAYOUT_SHARE

mkdir -p /var/driver /var/log/orv /run/orv-card /run/orv-hdc /run/orv-stub /run/orv-sandbox/bin \
         /home/QelvarUser /usr/lib64/aicpu_kernels /sys/fs/cgroup/memory/usermemory

# A sudo that works inside: everything in the sandbox already runs as its root.
cat > /run/orv-sandbox/bin/sudo <<'SUDO'
#!/bin/sh
while [ $# -gt 0 ]; do
    case $1 in
        --) shift; break ;;
        -*) shift ;;
        *) break ;;
    esac
done
exec "$@"
SUDO
chmod 0755 /run/orv-sandbox/bin/sudo
for program in ${ORV_LAYOUT_PROGRAMS:-}; do
    [ -x "$program" ] && ln -sf "$program" "/run/orv-sandbox/bin/$(basename "$program")"
done

for script in create_vf_config.sh destroy_vf_config.sh orvdaemon_modify_usermemory.sh orvdaemon_monitor.sh; do
    install -m 0755 "$share/$script" "/var/$script"
done
if [ -n "${ORV_LAYOUT_ENV_SCRIPT:-}" ]; then
    install -m 0644 "$ORV_LAYOUT_ENV_SCRIPT" /var/orvdaemon_add_env_variable.sh
fi

# The sub-process programs: one stand-in under four names, so that each
# process's name is the name the daemon looks for.
if [ -x "${ORV_LAYOUT_STANDIN:-}" ]; then
    for name in zarn_service.bin aicpu_runner aicpu_custom_runner queue_runner; do
        ln -f "$ORV_LAYOUT_STANDIN" "/var/$name" 2>/dev/null || cp -f "$ORV_LAYOUT_STANDIN" "/var/$name"
    done
fi
[ -f "${ORV_LAYOUT_IMGVERIFY:-}" ] && install -m 0755 "$ORV_LAYOUT_IMGVERIFY" /usr/lib64/libvelkan_imgverify.so
[ -e /usr/lib64/aicpu_kernels/aicpu_package_install.info ] || : > /usr/lib64/aicpu_kernels/aicpu_package_install.info

# Trusted directories live inside /home, so that the daemon can rename
# packages from them into /home/QelvarUser without crossing a mount.
dev=0
while [ "$dev" -lt "$ORV_LAYOUT_DEVICES" ]; do
    mkdir -p "/home/hdc-trusted/dev$dev"
    dev=$((dev + 1))
done

echo "$ORV_LAYOUT_VF_LIMIT" > /run/orv-card/vf_memory_limit
echo "$ORV_LAYOUT_VF_USAGE" > /run/orv-card/vf_memory_usage
echo "$ORV_LAYOUT_DEVICES" > /run/orv-card/devices

for vf in $(echo "${ORV_LAYOUT_VFS:-}" | tr ',' ' '); do
    /var/create_vf_config.sh "$vf"
done
