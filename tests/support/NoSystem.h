#ifndef TESTS_SUPPORT_NOSYSTEM_H
#define TESTS_SUPPORT_NOSYSTEM_H

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "Platform.h"

/// A system in which every call fails with ENOSYS, apart from statx: each path is a file of ours. A fake
/// derives from it and overrides the calls that it is about, so that a call that is added to Platform is
/// added here and not in every fake.
class NoSystem : public Dockhand::Platform {
 public:
  int mount(const std::string& /*source*/, const std::string& /*target*/, const char* /*fileSystemType*/,
            unsigned long /*flags*/, const char* /*options*/) override {
    return failure();
  }
  int umount(const std::string& /*target*/) override { return failure(); }
  int umount2(const std::string& /*target*/, int /*flags*/) override { return failure(); }
  int mkdir(const std::string& /*path*/, mode_t /*mode*/) override { return failure(); }
  int rmdir(const std::string& /*path*/) override { return failure(); }
  char* mkdtemp(char* /*path*/) override { return nothing(); }
  int access(const std::string& /*path*/, int /*mode*/) override { return failure(); }
  int scandir(const std::string& /*path*/, dirent*** /*entries*/, int (* /*filter*/)(const dirent*),
              int (* /*compare*/)(const dirent**, const dirent**)) override {
    return failure();
  }
  DIR* opendir(const std::string& /*path*/) override { return nothing(); }
  dirent* readdir(DIR* /*directory*/) override { return nothing(); }
  int closedir(DIR* /*directory*/) override { return failure(); }
  int open(const std::string& /*path*/, int /*flags*/) override { return failure(); }
  ssize_t read(int /*descriptor*/, void* /*buffer*/, size_t /*size*/) override { return failure(); }
  int close(int /*descriptor*/) override { return failure(); }
  int mknod(const std::string& /*path*/, mode_t /*mode*/) override { return failure(); }
  int rename(const std::string& /*from*/, const std::string& /*to*/) override { return failure(); }
  int statx(int /*directory*/, const std::string& /*path*/, int /*flags*/, unsigned int /*mask*/,
            struct statx* status) override {
    *status = {};
    status->stx_attributes_mask = STATX_ATTR_MOUNT_ROOT;
    status->stx_mode = S_IFREG | 0644;
    status->stx_uid = geteuid();
    status->stx_nlink = 1;
    return 0;
  }
  uid_t geteuid() override { return 0; }
  int system(const std::string& /*command*/) override { return failure(); }
  void sleep(unsigned int /*seconds*/) override {}
  blkid_probe blkid_new_probe_from_filename(const std::string& /*path*/) override { return nothing(); }
  int blkid_do_probe(blkid_probe /*probe*/) override { return failure(); }
  int blkid_probe_lookup_value(blkid_probe /*probe*/, const char* /*name*/, const char** /*value*/) override {
    return failure();
  }
  void blkid_free_probe(blkid_probe /*probe*/) override {}
  blkid_loff_t blkid_get_dev_size(int /*descriptor*/) override { return 0; }

 protected:
  /// The result of a call: 0, or -1 with this errno.
  static int resultOf(int error) {
    errno = error != 0 ? error : errno;
    return error != 0 ? -1 : 0;
  }
  static void setName(dirent& entry, const std::string& name) {
    entry = {};
    name.copy(entry.d_name, sizeof(entry.d_name) - 1);
  }
  /// The result of scandir in a directory with these names.
  static int scan(const std::vector<std::string>& names, dirent*** entries,
                  const std::function<bool(const dirent*)>& filter,
                  int (*compare)(const dirent**, const dirent**)) {
    std::vector<dirent*> accepted;
    for (const std::string& name : names) {
      dirent entry{};
      setName(entry, name);
      if (filter(&entry)) {
        accepted.push_back(static_cast<dirent*>(std::malloc(sizeof(dirent))));
        *accepted.back() = entry;
      }
    }
    std::stable_sort(accepted.begin(), accepted.end(), [compare](const dirent* left, const dirent* right) {
      return compare(&left, &right) < 0;
    });
    *entries = static_cast<dirent**>(std::calloc(accepted.size() + 1, sizeof(dirent*)));
    std::copy(accepted.begin(), accepted.end(), *entries);
    return static_cast<int>(accepted.size());
  }

 private:
  static int failure() { return resultOf(ENOSYS); }
  static std::nullptr_t nothing() {
    errno = ENOSYS;
    return nullptr;
  }
};

#endif  // TESTS_SUPPORT_NOSYSTEM_H
