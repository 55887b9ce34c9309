#ifndef DOCKHAND_MOUNTS_H
#define DOCKHAND_MOUNTS_H

#include <string>

#include "Platform.h"
#include "Prober.h"

namespace Dockhand {

/// Mounts and unmounts.
///
/// Threads: one at a time; the handler's lock guards it.
class Mounts {
 public:
  /// `platform` and `prober` must outlive this object.
  Mounts(Platform& platform, Prober& prober) : platform_(platform), prober_(prober) {}

  /// Unmounts what is mounted at `mountPath` and removes the directory. With `lazy` it detaches the mount,
  /// also while files are in use. Reads only the first 1024 bytes of the mount table: a mount after them
  /// counts as not mounted. Releases the prober's node before it unmounts. False only if unmounting failed.
  bool clear(const std::string& mountPath, bool lazy);
  /// Mounts with the first row for `fsType` in the mount table that works; an empty `fsType` tries all rows.
  /// False if none works, with the errno of the last row tried.
  bool tryTable(const std::string& node, const std::string& mountPoint, const std::string& fsType);

 private:
  Platform& platform_;
  Prober& prober_;
};

/// Where a repair mounts its disk.
inline constexpr const char* repairMountPoint = "/media/disk_tmp";

/// Mounts and unmounts an XFS file system once, at repairMountPoint, so that the kernel replays its journal.
/// Failures are in the log only. Needs no lock.
void replayJournal(Platform& platform, const std::string& node);

}  // namespace Dockhand

#endif  // DOCKHAND_MOUNTS_H
