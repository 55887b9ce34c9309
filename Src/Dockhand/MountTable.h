#ifndef DOCKHAND_MOUNTTABLE_H
#define DOCKHAND_MOUNTTABLE_H

#include <sys/mount.h>

namespace Dockhand {

/// One way to mount a file system.
struct MountTableRow {
  /// The "TYPE" that libblkid reports for it.
  const char* probedType;
  /// The type that mount(2) takes.
  const char* fileSystemType;
  unsigned long flags;
  const char* options;
};

/// The mounts that opening a device tries, in this order. A writable file system has two rows: one for
/// writing, and after it one for write-protected media.
inline constexpr MountTableRow mountTable[] = {
    {"vfat", "vfat", MS_MGC_VAL | MS_NOSUID, "utf8"},
    {"vfat", "vfat", MS_MGC_VAL | MS_NOSUID | MS_RDONLY, "utf8"},
    {"ntfs", "ntfs", MS_NOSUID | MS_NOEXEC, "nls=utf8"},
    {"ntfs", "ntfs", MS_NOSUID | MS_NOEXEC | MS_RDONLY, "nls=utf8"},
    {"ext3", "ext3", MS_MGC_VAL | MS_NOSUID, ""},
    {"ext3", "ext3", MS_MGC_VAL | MS_NOSUID | MS_RDONLY, ""},
    {"hfs", "hfs", MS_NOSUID | MS_RDONLY, "nls=utf8"},
    {"hfs+", "hfsplus", MS_NOSUID | MS_RDONLY, "nls=utf8"},
    {"xfs", "xfs", MS_NOSUID | MS_NOEXEC | MS_NOATIME, "prjquota"},
};

}  // namespace Dockhand

#endif  // DOCKHAND_MOUNTTABLE_H
