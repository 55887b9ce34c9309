#ifndef DOCKHAND_FORWARDINGPLATFORM_H
#define DOCKHAND_FORWARDINGPLATFORM_H

#include <string>

#include "Platform.h"

namespace Dockhand {

/// Passes every call on to another platform. A derived class overrides only the calls that it changes. A call
/// that is added to Platform is passed on without a change to that class.
class ForwardingPlatform : public Platform {
 public:
  /// `below` must outlive this object.
  explicit ForwardingPlatform(Platform& below) : below_(below) {}

  int mount(const std::string& source, const std::string& target, const char* fileSystemType,
            unsigned long flags, const char* options) override {
    return below_.mount(source, target, fileSystemType, flags, options);
  }
  int umount(const std::string& target) override { return below_.umount(target); }
  int umount2(const std::string& target, int flags) override { return below_.umount2(target, flags); }
  int mkdir(const std::string& path, mode_t mode) override { return below_.mkdir(path, mode); }
  int rmdir(const std::string& path) override { return below_.rmdir(path); }
  char* mkdtemp(char* path) override { return below_.mkdtemp(path); }
  int access(const std::string& path, int mode) override { return below_.access(path, mode); }
  int scandir(const std::string& path, dirent*** entries, int (*filter)(const dirent*),
              int (*compare)(const dirent**, const dirent**)) override {
    return below_.scandir(path, entries, filter, compare);
  }
  DIR* opendir(const std::string& path) override { return below_.opendir(path); }
  dirent* readdir(DIR* directory) override { return below_.readdir(directory); }
  int closedir(DIR* directory) override { return below_.closedir(directory); }
  int open(const std::string& path, int flags) override { return below_.open(path, flags); }
  ssize_t read(int descriptor, void* buffer, size_t size) override {
    return below_.read(descriptor, buffer, size);
  }
  int close(int descriptor) override { return below_.close(descriptor); }
  int mknod(const std::string& path, mode_t mode) override { return below_.mknod(path, mode); }
  int rename(const std::string& from, const std::string& to) override { return below_.rename(from, to); }
  int statx(int directory, const std::string& path, int flags, unsigned int mask,
            struct statx* status) override {
    return below_.statx(directory, path, flags, mask, status);
  }
  uid_t geteuid() override { return below_.geteuid(); }
  int system(const std::string& command) override { return below_.system(command); }
  void sleep(unsigned int seconds) override { below_.sleep(seconds); }
  blkid_probe blkid_new_probe_from_filename(const std::string& path) override {
    return below_.blkid_new_probe_from_filename(path);
  }
  int blkid_do_probe(blkid_probe probe) override { return below_.blkid_do_probe(probe); }
  int blkid_probe_lookup_value(blkid_probe probe, const char* name, const char** value) override {
    return below_.blkid_probe_lookup_value(probe, name, value);
  }
  void blkid_free_probe(blkid_probe probe) override { below_.blkid_free_probe(probe); }
  blkid_loff_t blkid_get_dev_size(int descriptor) override { return below_.blkid_get_dev_size(descriptor); }

 protected:
  Platform& below() const { return below_; }

 private:
  Platform& below_;
};

}  // namespace Dockhand

#endif  // DOCKHAND_FORWARDINGPLATFORM_H
