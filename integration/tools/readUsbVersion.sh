#!/bin/sh
# Prints the USB version of a block device, such as 2.00 or 3.20, on one line.
#
#     readUsbVersion.sh NAME      NAME: kernel name of the whole disk, such as sdb
#
# The kernel has the version in the file `version` of the USB device that the disk belongs to, several levels above the
# disk in sysfs, and with a leading blank. A device that is no USB device, or is unknown, ends with exit status 1.
set -u

if [ $# -ne 1 ] || [ -z "$1" ]; then
  echo "usage: readUsbVersion.sh NAME" >&2
  exit 2
fi

folder=$(readlink -f "${SYSFS:-/sys}/block/$1/device") && [ -d "$folder" ] || {
  echo "readUsbVersion.sh: $1: no such disk" >&2
  exit 1
}
while [ -n "$folder" ]; do
  if [ -r "$folder/idVendor" ] && read -r version <"$folder/version"; then
    printf '%s\n' "$version"
    exit 0
  fi
  folder=${folder%/*}
done
echo "readUsbVersion.sh: $1: not a USB device" >&2
exit 1
