#ifndef DOCKHAND_LINUXPLATFORM_H
#define DOCKHAND_LINUXPLATFORM_H

#include <cstddef>

#include "Platform.h"

namespace Dockhand {

/// Limits on what is read from one directory. A file system of a few blocks can list hundreds of millions of
/// files by repeating one block of a directory, and the reply to a caller must fit into memory.
struct DirectoryLimits {
  std::size_t entries = std::size_t{4} << 20;
  /// Bytes of all names together, without the NUL bytes at their ends.
  std::size_t nameBytes = std::size_t{64} << 20;
};

/// The real system, except that a directory ends where it reaches one of the limits. readdir then writes a
/// line to the handler's log and keeps errno, as at any other end.
class LinuxPlatform : public Platform {
 public:
  explicit LinuxPlatform(const DirectoryLimits& directoryLimits = {}) : directoryLimits_(directoryLimits) {}

  int mount(const std::string& source, const std::string& target, const char* fileSystemType,
            unsigned long flags, const char* options) override;
  int umount(const std::string& target) override;
  int umount2(const std::string& target, int flags) override;
  int mkdir(const std::string& path, mode_t mode) override;
  int rmdir(const std::string& path) override;
  char* mkdtemp(char* path) override;
  int access(const std::string& path, int mode) override;
  int scandir(const std::string& path, dirent*** entries, int (*filter)(const dirent*),
              int (*compare)(const dirent**, const dirent**)) override;
  DIR* opendir(const std::string& path) override;
  dirent* readdir(DIR* directory) override;
  int closedir(DIR* directory) override;
  int open(const std::string& path, int flags) override;
  ssize_t read(int descriptor, void* buffer, size_t size) override;
  int close(int descriptor) override;
  int mknod(const std::string& path, mode_t mode) override;
  int rename(const std::string& from, const std::string& to) override;
  int statx(int directory, const std::string& path, int flags, unsigned int mask,
            struct statx* status) override;
  uid_t geteuid() override;
  int system(const std::string& command) override;
  void sleep(unsigned int seconds) override;
  blkid_probe blkid_new_probe_from_filename(const std::string& path) override;
  int blkid_do_probe(blkid_probe probe) override;
  int blkid_probe_lookup_value(blkid_probe probe, const char* name, const char** value) override;
  void blkid_free_probe(blkid_probe probe) override;
  blkid_loff_t blkid_get_dev_size(int descriptor) override;

 private:
  const DirectoryLimits directoryLimits_;
};

}  // namespace Dockhand

#endif  // DOCKHAND_LINUXPLATFORM_H
