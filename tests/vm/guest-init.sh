#!/bin/busybox sh
# shellcheck shell=dash
# The first program in the guest: puts a scratch layer over the host's file system, which it has read-only
# over 9p, and goes on to the init that the kernel's command line names (VM_INIT: busybox or systemd).
# The kernel hands VM_INIT, VM_CHECKOUT and VM_PROGRAMS over as environment variables.

/bin/busybox --install -s /bin
export PATH=/bin
folder=$VM_CHECKOUT/tests/vm

stop() {
  echo "vm: $*"
  poweroff -f
}

mount -t devtmpfs dev /dev
mount -t proc proc /proc
while read -r module; do
  insmod "/modules/$module" || stop "cannot load $module"
done < /modules/order
umount /proc

share="trans=virtio,version=9p2000.L,cache=loose,msize=262144,ro"
mount -t 9p -o "$share" host /host || stop "cannot mount the host's file system"
mount -t 9p -o "$share" kernel /kernel || stop "cannot mount the kernel's modules"
mount -t tmpfs -o size=300m upper /upper || stop "no scratch layer"
mkdir /upper/files /upper/work
mount -t overlay -o lowerdir=/kernel:/host,upperdir=/upper/files,workdir=/upper/work root /root ||
  stop "cannot put the scratch layer on top"

# Few mounts with short options: the mount table is read by programs that look at its first 1024 bytes only.
mount -t proc proc /root/proc
mount -t sysfs sys /root/sys
mount --move /dev /root/dev
for name in run tmp media; do
  mount -t tmpfs "$name" "/root/$name"
done
chmod 1777 /root/tmp

# The tests stay reachable where the fresh /tmp hides them.
case "$VM_CHECKOUT" in
  /tmp/*)
    mkdir -p "/root$VM_CHECKOUT"
    mount --bind "/host$VM_CHECKOUT" "/root$VM_CHECKOUT" || stop "cannot reach $VM_CHECKOUT"
    ;;
esac

# What the host has enabled or configured is not to run here.
rm -rf /root/etc/systemd/system /root/etc/udev/rules.d
mkdir -p /root/etc/systemd/system /root/etc/udev/rules.d
: > /root/etc/fstab

if [ -n "$VM_PROGRAMS" ]; then
  cp -R "/host$VM_PROGRAMS/." /root/ || stop "cannot install $VM_PROGRAMS"
fi

# The host may be a container, and its packages may start no services; this is none.
rm -f /root/.dockerenv /root/usr/sbin/policy-rc.d

if [ "$VM_INIT" = systemd ]; then
  cp -r "/host$folder"/guest-systemd/. /root/etc/systemd/system/
  mkdir -p /root/etc/systemd/system/vm-agent.service.d
  printf '[Service]\nExecStart=/usr/bin/python3 %s/agent.py\n' "$folder" \
    > /root/etc/systemd/system/vm-agent.service.d/folder.conf
  # Either slow under emulation or a line more in the mount table.
  rm -rf /root/usr/lib/systemd/system-generators
  for unit in dev-hugepages.mount dev-mqueue.mount proc-sys-fs-binfmt_misc.automount \
    sys-fs-fuse-connections.mount sys-kernel-config.mount sys-kernel-debug.mount sys-kernel-tracing.mount \
    kmod-static-nodes.service systemd-binfmt.service systemd-firstboot.service systemd-hwdb-update.service \
    systemd-journal-flush.service systemd-machine-id-commit.service systemd-modules-load.service \
    systemd-pcrphase-sysinit.service \
    systemd-pcrphase.service systemd-random-seed.service systemd-repart.service systemd-sysctl.service \
    systemd-sysusers.service systemd-tmpfiles-setup-dev.service systemd-tmpfiles-setup.service \
    systemd-update-utmp.service timers.target; do
    ln -s /dev/null "/root/etc/systemd/system/$unit"
  done
  # An identifier of its own keeps systemd from treating this as a first boot.
  echo 0123456789abcdef0123456789abcdef > /root/etc/machine-id
  exec switch_root /root /lib/systemd/systemd
fi

cat > /root/etc/inittab <<EOT
::sysinit:/bin/sh $folder/guest-setup.sh
::respawn:/usr/bin/python3 $folder/agent.py
EOT
exec switch_root /root /bin/busybox init
