#ifndef DOCKHANDCTL_MOUNTS_H
#define DOCKHANDCTL_MOUNTS_H

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

/// The kernel's mounts. The daemon only says what it has done: it does not look at the mount table, and does
/// not learn what others do to it. So the mount table of this process is read, which is what users see. If
/// the daemon has a mount namespace of its own, its table is read too, if that is permitted (to root).
///
/// In tests the environment variable DOCKHANDCTL_TEST_ROOT names a folder that replaces / here.
namespace dockhandctl {

/// What the kernel and udev say about a device.
struct Mounted {
  /// Every directory where it is mounted, in the order of the table.
  std::vector<std::string> at;
  /// Directories that are only in the daemon's own table.
  std::vector<std::string> atForDaemonOnly;
  /// The type of its file system: the kernel's if it is mounted, otherwise udev's.
  std::optional<std::string> fileSystem;
};

/// Takes the NAME in /dev/usb_storage_NAME. A missing node is mounted nowhere. Throws Failure (ownFailure) if
/// the table of this process cannot be read.
Mounted readMounted(const std::string& kernelName, pid_t daemon);

/// The mounts of the whole disk that this kernel name belongs to, with all partitions. Throws like
/// readMounted().
Mounted readMountedOfDisk(const std::string& kernelName, pid_t daemon);

bool isMounted(const Mounted& mounted);

/// All directories where it is mounted, as a text for people: `"/media/a", "/mnt/b" (for dockhand alone)`.
std::string placesText(const Mounted& mounted);

/// The path as in the mount table: without links, double slashes and a slash at the end. The last part may be
/// missing. Returns a path unchanged if it cannot be resolved.
std::string canonicalPath(const std::string& path);

/// The canonical path of a directory where closing works. The daemon looks for the path as text in the first
/// 1024 bytes of /proc/mounts, with only blanks escaped. Throws std::runtime_error, with the reason, if the
/// daemon could not find the path there, or if the path cannot be resolved.
std::string closablePath(const std::string& path);

/// `"/media/a", "/media/b"`, for people.
std::string quotedList(const std::vector<std::string>& paths);

}  // namespace dockhandctl

#endif  // DOCKHANDCTL_MOUNTS_H
