#ifndef DOCKHANDCTL_MOUNTS_H
#define DOCKHANDCTL_MOUNTS_H

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

/// What the kernel says of mounts, in the mount table of this process: what users see. The daemon's own
/// answers say what it has done, and neither look at the table nor learn what others do to it. Its own table,
/// where it is in a mount namespace of its own, is looked at too where it may be read: root may.
///
/// In tests the environment variable DOCKHANDCTL_TEST_ROOT names a folder that stands for / here.
namespace dockhandctl {

/// What the kernel and udev say of a device.
struct Mounted {
  /// Every directory where it is mounted, in the order of the table.
  std::vector<std::string> at;
  /// Those that only the daemon's own table has.
  std::vector<std::string> atForDaemonOnly;
  /// The type of its file system: the kernel's where it is mounted, else what udev has found on it.
  std::optional<std::string> fileSystem;
};

/// Of the node /dev/usb_storage_NAME. A node that is gone is mounted nowhere. Throws Failure (ownFailure)
/// when the table of this process cannot be read.
Mounted readMounted(const std::string& kernelName, pid_t daemon);

/// Where anything of the disk is mounted that this kernel name belongs to: all partitions, and the disk
/// itself. Throws as readMounted().
Mounted readMountedOfDisk(const std::string& kernelName, pid_t daemon);

bool isMounted(const Mounted& mounted);

/// Every place where it is mounted, for people: `"/media/a", "/mnt/b" (for dockhand alone)`.
std::string placesText(const Mounted& mounted);

/// The path as the mount table has it: without links, double slashes and a slash at the end. The last part
/// need not exist. A path that cannot be resolved is returned as it is.
std::string canonicalPath(const std::string& path);

/// The canonical path of a directory where closing works: the daemon looks for it as text in the first 1024
/// bytes of /proc/mounts, with nothing but blanks escaped. Throws std::runtime_error with the reason for a
/// path that the daemon could not find there, and for one that cannot be resolved.
std::string closablePath(const std::string& path);

/// `"/media/a", "/media/b"`, for people.
std::string quotedList(const std::vector<std::string>& paths);

}  // namespace dockhandctl

#endif  // DOCKHANDCTL_MOUNTS_H
