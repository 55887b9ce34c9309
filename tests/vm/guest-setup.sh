#!/bin/sh
# Starts the device manager and the loopback interface in a guest without systemd.

export PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
busybox ip link set lo up
busybox hostname vm
/lib/systemd/systemd-udevd --daemon
# Triggering all devices takes many seconds under emulation.
udevadm trigger --subsystem-match=usb --subsystem-match=block --action=add
modprobe -a xhci_pci ehci_pci uhci_hcd usb_storage sd_mod
udevadm settle
