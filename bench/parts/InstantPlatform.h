#ifndef DOCKHAND_BENCH_INSTANTPLATFORM_H
#define DOCKHAND_BENCH_INSTANTPLATFORM_H

#include <cstddef>
#include <string>
#include <vector>

#include "Platform.h"

namespace bench {

/// A fake system without delays and without a journal, so that only the handler's own work is measured.
/// Every directory holds `names`, in this order. Every other call succeeds or fails with ENOENT.
class InstantPlatform : public Dockhand::Platform {
 public:
  std::vector<std::string> names;

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
  dirent* readdir(DIR* directory) override;
  int closedir(DIR* directory) override;
  int open(const std::string& path, int flags) override;
  ssize_t read(int descriptor, void* buffer, size_t size) override;
  int close(int descriptor) override;
  Dockhand::Claim claimFile(const std::string& path) override;
  int system(const std::string& command) override;
  void sleep(unsigned int seconds) override;
  blkid_probe blkid_new_probe_from_filename(const std::string& path) override;
  int blkid_do_probe(blkid_probe probe) override;
  int blkid_probe_lookup_value(blkid_probe probe, const char* name, const char** value) override;
  void blkid_free_probe(blkid_probe probe) override;
  blkid_loff_t blkid_get_dev_size(int descriptor) override;

 private:
  std::size_t position_ = 0;
  dirent entry_{};
};

}  // namespace bench

#endif  // DOCKHAND_BENCH_INSTANTPLATFORM_H
