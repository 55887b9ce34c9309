#include "Mounts.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "FailureJudges.h"
#include "ModuleLog.h"
#include "MountTable.h"

namespace Dockhand {

namespace {

/// A path as a field of the kernel's mount table, with its trailing blank, so that /media/a does not match
/// /media/ab.
std::string mountTableField(const std::string& path) {
  std::string field;
  for (const char c : path) {
    if (c == ' ') {
      field += "\\040";
    } else {
      field += c;
    }
  }
  return field + ' ';
}

}  // namespace

bool Mounts::clear(const std::string& mountPath, bool lazy) {
  const std::string field = mountTableField(mountPath);
  usbClientLog.trace(506, "CheckForAndRemoveMount: ", field);

  const int file = platform_.open("/proc/mounts", O_RDONLY);
  if (file >= 0) {
    std::array<char, 1024> text;
    const ssize_t size = platform_.read(file, text.data(), text.size());
    const std::string_view mounts(text.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
    bool unmounted = true;
    if (mounts.find(field) != std::string_view::npos) {
      usbClientLog.trace(521, "Performing unmount for ", mountPath);
      // A file system may write past the kernel's cache of our open node, so the next probe must read the
      // disk again.
      prober_.releaseNode();
      if (platform_.umount2(mountPath, lazy ? MNT_DETACH : 0) != 0) {
        const int error = errno;
        usbClientLog.warning(528, "umount2(", mountPath, ") failed, errno=", error, "=",
                             std::strerror(error));
        unmounted = false;
      }
    }
    platform_.close(file);
    if (!unmounted) {
      return false;
    }
  }

  if (platform_.access(mountPath, F_OK) == 0) {
    usbClientLog.trace(541, "Performing rmdir for ", mountPath);
    if (platform_.rmdir(mountPath) != 0) {
      const int error = errno;
      usbClientLog.warning(545, "Ignored rmdir(", mountPath, ") failed, errno=", error, "=",
                           std::strerror(error));
    }
  }
  return true;
}

bool Mounts::tryTable(const std::string& node, const std::string& mountPoint, const std::string& fsType) {
  for (const MountTableRow& row : mountTable) {
    if (!fsType.empty() && fsType != row.probedType) {
      continue;
    }
    if (platform_.mount(node, mountPoint, row.fileSystemType, row.flags, row.options) == 0) {
      return true;
    }
  }
  return false;
}

void replayJournal(Platform& platform, const std::string& node) {
  const std::string mountPoint = repairMountPoint;
  if (platform.mkdir(mountPoint, 0775) != 0 && !acceptMkdirError(errno)) {
    return;
  }
  if (platform.mount(node, mountPoint, "xfs", MS_NOSUID | MS_NOEXEC | MS_NOATIME, "prjquota") != 0) {
    const int error = errno;
    usbClientLog.warning(1220, "mount(", node, ",", mountPoint, ") failed, errno=", error, "=",
                         std::strerror(error));
  }
  if (platform.umount(mountPoint) != 0) {
    const int error = errno;
    usbClientLog.warning(1225, "umount(", mountPoint, ") failed, errno=", error, "=", std::strerror(error));
  }
  if (platform.rmdir(mountPoint) != 0) {
    const int error = errno;
    usbClientLog.warning(1229, "rmdir(", mountPoint, ") failed, errno=", error, "=", std::strerror(error));
  }
}

}  // namespace Dockhand
