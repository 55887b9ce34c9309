#include "InstantPlatform.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace bench {

namespace {

int missing() {
  errno = ENOENT;
  return -1;
}

void setName(dirent& entry, const std::string& name) {
  std::memcpy(entry.d_name, name.c_str(), name.size() + 1);
}

}  // namespace

int InstantPlatform::mount(const std::string& /*source*/, const std::string& /*target*/,
                           const char* /*fileSystemType*/, unsigned long /*flags*/, const char* /*options*/) {
  return 0;
}

int InstantPlatform::umount(const std::string& /*target*/) {
  return 0;
}

int InstantPlatform::umount2(const std::string& /*target*/, int /*flags*/) {
  return 0;
}

int InstantPlatform::mkdir(const std::string& /*path*/, mode_t /*mode*/) {
  return 0;
}

int InstantPlatform::rmdir(const std::string& /*path*/) {
  return 0;
}

int InstantPlatform::access(const std::string& /*path*/, int /*mode*/) {
  return missing();
}

int InstantPlatform::scandir(const std::string& /*path*/, dirent*** entries, int (*filter)(const dirent*),
                             int (* /*compare*/)(const dirent**, const dirent**)) {
  // Like the real scandir: the caller frees the array and each entry.
  *entries = static_cast<dirent**>(std::malloc(names.size() * sizeof(dirent*)));
  int count = 0;
  for (const std::string& name : names) {
    setName(entry_, name);
    if (filter(&entry_) != 0) {
      const std::size_t size = offsetof(dirent, d_name) + name.size() + 1;
      auto* const copy = static_cast<dirent*>(std::malloc(size));
      std::memcpy(copy, &entry_, size);
      (*entries)[count++] = copy;
    }
  }
  return count;
}

DIR* InstantPlatform::opendir(const std::string& /*path*/) {
  position_ = 0;
  return reinterpret_cast<DIR*>(this);
}

dirent* InstantPlatform::readdir(DIR* /*directory*/) {
  if (position_ == names.size()) {
    return nullptr;
  }
  setName(entry_, names[position_++]);
  return &entry_;
}

int InstantPlatform::closedir(DIR* /*directory*/) {
  return 0;
}

int InstantPlatform::open(const std::string& /*path*/, int /*flags*/) {
  return missing();
}

ssize_t InstantPlatform::read(int /*descriptor*/, void* /*buffer*/, size_t /*size*/) {
  return missing();
}

int InstantPlatform::close(int /*descriptor*/) {
  return 0;
}

Dockhand::Claim InstantPlatform::claimFile(const std::string& /*path*/) {
  return Dockhand::Claim::ours;
}

int InstantPlatform::system(const std::string& /*command*/) {
  return 0;
}

void InstantPlatform::sleep(unsigned int /*seconds*/) {}

blkid_probe InstantPlatform::blkid_new_probe_from_filename(const std::string& /*path*/) {
  return nullptr;
}

int InstantPlatform::blkid_do_probe(blkid_probe /*probe*/) {
  return missing();
}

int InstantPlatform::blkid_probe_lookup_value(blkid_probe /*probe*/, const char* /*name*/,
                                              const char** /*value*/) {
  return missing();
}

void InstantPlatform::blkid_free_probe(blkid_probe /*probe*/) {}

blkid_loff_t InstantPlatform::blkid_get_dev_size(int /*descriptor*/) {
  return 0;
}

}  // namespace bench
