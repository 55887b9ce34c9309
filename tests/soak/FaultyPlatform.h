#ifndef DOCKHAND_TESTS_SOAK_FAULTYPLATFORM_H
#define DOCKHAND_TESTS_SOAK_FAULTYPLATFORM_H

#include <cerrno>
#include <functional>
#include <sstream>
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
            unsigned long flags, const char* options) override {
    std::ostringstream call;
    call << "mount " << source << ' ' << target << ' ' << fileSystemType << ' ' << std::hex << flags << ' '
         << options;
    return fails(call.str()) ? -1 : below().mount(source, target, fileSystemType, flags, options);
  }
  int umount(const std::string& target) override {
    return fails("umount " + target) ? -1 : below().umount(target);
  }
  int umount2(const std::string& target, int flags) override {
    return fails("umount2 " + target + ' ' + std::to_string(flags)) ? -1 : below().umount2(target, flags);
  }
  int mkdir(const std::string& path, mode_t mode) override {
    std::ostringstream call;
    call << "mkdir " << path << ' ' << std::oct << mode;
    return fails(call.str()) ? -1 : below().mkdir(path, mode);
  }
  int rmdir(const std::string& path) override { return fails("rmdir " + path) ? -1 : below().rmdir(path); }
  int access(const std::string& path, int mode) override {
    return fails("access " + path) ? -1 : below().access(path, mode);
  }
  int scandir(const std::string& path, dirent*** entries, int (*filter)(const dirent*),
              int (*compare)(const dirent**, const dirent**)) override {
    return fails("scandir " + path) ? -1 : below().scandir(path, entries, filter, compare);
  }
  DIR* opendir(const std::string& path) override {
    return fails("opendir " + path) ? nullptr : below().opendir(path);
  }
  int open(const std::string& path, int flags) override {
    return fails("open " + path) ? -1 : below().open(path, flags);
  }
  int system(const std::string& command) override {
    return fails("system " + command) ? -1 : below().system(command);
  }
  blkid_probe blkid_new_probe_from_filename(const std::string& path) override {
    return fails("new_probe " + path) ? nullptr : below().blkid_new_probe_from_filename(path);
  }
  int blkid_do_probe(blkid_probe probe) override {
    return fails("do_probe") ? -1 : below().blkid_do_probe(probe);
  }
  int blkid_probe_lookup_value(blkid_probe probe, const char* name, const char** value) override {
    return fails(std::string("lookup ") + name) ? -1 : below().blkid_probe_lookup_value(probe, name, value);
  }
  blkid_loff_t blkid_get_dev_size(int descriptor) override {
    return fails("dev_size") ? -1 : below().blkid_get_dev_size(descriptor);
  }

 private:
  /// Decides on a call; true, with errno set, when it is to fail.
  bool fails(const std::string& call) const {
    // The function may change errno; the caller must not see that.
    const int before = errno;
    const int error = decide_(call);
    errno = error != 0 ? error : before;
    return error != 0;
  }

  const Decide decide_;
};

}  // namespace soak

#endif  // DOCKHAND_TESTS_SOAK_FAULTYPLATFORM_H
