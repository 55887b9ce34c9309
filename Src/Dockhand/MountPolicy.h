#ifndef DOCKHAND_MOUNTPOLICY_H
#define DOCKHAND_MOUNTPOLICY_H

#include <memory>
#include <string>
#include <utility>

#include "ForwardingPlatform.h"
#include "MountRules.h"

namespace Dockhand {

/// Mounts sticks by the rows of a file instead of the handler's table. The handler does not know of it.
///
/// An opening begins where the handler makes the directory. The first mount of an opening asks libblkid for
/// the type that is on the node now. If there is a row for it, the stick is mounted by that row: once for
/// writing, and once more read-only if the first fails with EROFS or EACCES. Every later mount of the opening
/// only repeats the result. If there is no row, each mount goes on to the kernel as the handler asked.
///
/// An opening never counts as done with nothing mounted. The handler takes EINVAL and EBUSY for success, so
/// they become ENODEV. EBUSY stays if the node is mounted at this directory. A line in the log has the reason
/// once the handler gives up, which it does by removing the directory.
///
/// The mount of a repair goes on as it is.
///
/// Threads: any number at once, without a lock. Each thread has its own opening, because the handler performs
/// an opening on one thread. So a repair, which mounts without the handler's lock, does not touch it.
class MountPolicy : public ForwardingPlatform {
 public:
  MountPolicy(Platform& below, MountRules rules) : ForwardingPlatform(below), rules_(std::move(rules)) {}

  int mkdir(const std::string& path, mode_t mode) override;
  blkid_probe blkid_new_probe_from_filename(const std::string& path) override;
  int mount(const std::string& source, const std::string& target, const char* fileSystemType,
            unsigned long flags, const char* options) override;
  int rmdir(const std::string& path) override;

 private:
  /// The one attempt of this thread's opening.
  void mountByRule(const MountRule& rule);

  const MountRules rules_;
};

/// The policy over `below` with the rows of the file that the environment variable DOCKHAND_MOUNTS names.
/// Null, after no call, if the variable is not set or empty. Throws std::runtime_error if the file is not
/// root's, others may write to it, or it cannot be read; see also parseMountRules.
std::unique_ptr<MountPolicy> makeMountPolicy(Platform& below);

}  // namespace Dockhand

#endif  // DOCKHAND_MOUNTPOLICY_H
