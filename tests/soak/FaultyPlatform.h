#ifndef DOCKHAND_TESTS_SOAK_FAULTYPLATFORM_H
#define DOCKHAND_TESTS_SOAK_FAULTYPLATFORM_H

#include <functional>
#include <string>
#include <utility>

#include "ForwardingPlatform.h"

namespace soak {

/// Makes some calls of another system fail. Before each call that can fail, a function decides. A failing
/// call does not reach the system below. The function gets the call as a text:
///
///     mount SOURCE TARGET TYPE FLAGS(hex) OPTIONS
///     umount TARGET               umount2 TARGET FLAGS
///     mkdir PATH MODE(octal)      rmdir PATH                  access PATH
///     scandir DIR                 opendir DIR                 open PATH
///     new_probe PATH              do_probe
///     lookup KEY                  dev_size
///     system COMMAND
///
/// Threads: any that the function and the system below allow. It takes no locks.
class FaultyPlatform : public Dockhand::ForwardingPlatform {
 public:
  /// Returns the errno of a call; 0 if it succeeds. Called in the thread that makes the call.
  using Decide = std::function<int(const std::string& call)>;

  /// `below` must outlive this object.
  FaultyPlatform(Dockhand::Platform& below, Decide decide)
      : ForwardingPlatform(below), decide_(std::move(decide)) {}

  int mount(const std::string& source, const std::string& target, const char* fileSystemType,
            unsigned long flags, const char* options) override;
  int umount(const std::string& target) override;
  int umount2(const std::string& target, int flags) override;
  int mkdir(const std::string& path, mode_t mode) override;
  int rmdir(const std::string& path) override;
  int access(const std::string& path, int mode) override;
  int scandir(const std::string& path, dirent*** entries, int (*filter)(const dirent*),
              int (*compare)(const dirent**, const dirent**)) override;
  DIR* opendir(const std::string& path) override;
  int open(const std::string& path, int flags) override;
  int system(const std::string& command) override;
  blkid_probe blkid_new_probe_from_filename(const std::string& path) override;
  int blkid_do_probe(blkid_probe probe) override;
  int blkid_probe_lookup_value(blkid_probe probe, const char* name, const char** value) override;
  blkid_loff_t blkid_get_dev_size(int descriptor) override;

 private:
  /// Decides on a call; true, with errno set, when it is to fail.
  bool fails(const std::string& call) const;

  const Decide decide_;
};

}  // namespace soak

#endif  // DOCKHAND_TESTS_SOAK_FAULTYPLATFORM_H
