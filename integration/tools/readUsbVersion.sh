#!/bin/sh
# Prints the USB version of a block device, such as 2.00 or 3.20, on one line.
#
#     readUsbVersion.sh NAME      NAME: kernel name of the whole disk, such as sdb
#
# The version is in the file `version` of the disk's USB device, several levels above the disk in sysfs, with a leading
# blank. The hub above that device has a version of its own. Exits with 1 if the disk is unknown, is not on USB, or has
# no version.
set -u

if [ $# -ne 1 ] || [ -z "$1" ]; then
  echo "usage: readUsbVersion.sh NAME" >&2
  exit 2
fi

folder=$(readlink -f "${SYSFS:-/sys}/block/$1/device")
if [ ! -d "$folder" ]; then
  echo "readUsbVersion.sh: \"$1\": no such disk" >&2
  exit 1
fi
while [ -n "$folder" ] && [ ! -e "$folder/idVendor" ]; do
  folder=${folder%/*}
done
if [ -z "$folder" ]; then
  echo "readUsbVersion.sh: \"$1\": not a USB device" >&2
  exit 1
fi
if ! read -r version <"$folder/version" || [ -z "$version" ]; then
  echo "readUsbVersion.sh: \"$1\": its USB version cannot be read" >&2
  exit 1
fi
printf '%s\n' "$version"
