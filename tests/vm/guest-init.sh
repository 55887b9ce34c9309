#!/bin/busybox sh
# shellcheck shell=dash
# The first program in the guest. It mounts the guest's root, a folder of the host, read-only over 9p, puts a scratch
# layer over it, and starts the init of the kernel's command line (VM_INIT: busybox or systemd). The kernel passes
# VM_INIT and VM_PROGRAMS as environment variables.

/bin/busybox --install -s /bin
export PATH=/bin

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

# Few mounts with short options: programs under test read only the first 1024 bytes of the mount table.
mount -t proc proc /root/proc
mount -t sysfs sys /root/sys
mount --move /dev /root/dev
for name in run tmp media; do
  mount -t tmpfs "$name" "/root/$name"
done
chmod 1777 /root/tmp

# The programs of the tests.
cp -R /vm /root/vm

# Nothing that the host has enabled or configured may run here.
rm -rf /root/etc/systemd/system /root/etc/udev/rules.d
mkdir -p /root/etc/systemd/system /root/etc/udev/rules.d
: > /root/etc/fstab

if [ -n "$VM_PROGRAMS" ]; then
  cp -R "/host$VM_PROGRAMS/." /root/ || stop "cannot install $VM_PROGRAMS"
fi

# A host that is a container may forbid its packages to start services. Allow it here.
rm -f /root/.dockerenv /root/usr/sbin/policy-rc.d

if [ "$VM_INIT" = systemd ]; then
  cp -r /vm/guest-systemd/. /root/etc/systemd/system/
  # These are slow under emulation, or add a line to the mount table.
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
  # With an identifier systemd does not treat this as a first boot.
  echo 0123456789abcdef0123456789abcdef > /root/etc/machine-id
  exec switch_root /root /lib/systemd/systemd
fi

# As Buildroot does, it runs start scripts by their numbers. The last line starts init anew without a boot.
cat > /root/etc/inittab <<'EOT'
::sysinit:/bin/sh /vm/guest-setup.sh
::sysinit:/bin/sh -c 'for script in $(ls /etc/init.d/S[0-9][0-9]* 2>/dev/null); do "$script" start; done'
::shutdown:/bin/sh -c 'for script in $(ls -r /etc/init.d/S[0-9][0-9]* 2>/dev/null); do "$script" stop; done'
::respawn:/usr/bin/python3 /vm/agent.py
::restart:/bin/busybox init
EOT
exec switch_root /root /bin/busybox init
