#include "InstantPlatform.h"

#include <cstdlib>
#include <cstring>

namespace bench {

namespace {

void copyName(dirent& entry, const std::string& name) {
  std::memcpy(entry.d_name, name.c_str(), name.size() + 1);
}

}  // namespace

int InstantPlatform::scandir(const std::string& /*path*/, dirent*** entries, int (*filter)(const dirent*),
                             int (* /*compare*/)(const dirent**, const dirent**)) {
  // Like the real scandir: the caller frees the array and each entry.
  *entries = static_cast<dirent**>(std::malloc(names.size() * sizeof(dirent*)));
  int count = 0;
  for (const std::string& name : names) {
    copyName(entry_, name);
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
  copyName(entry_, names[position_++]);
  return &entry_;
}

int InstantPlatform::closedir(DIR* /*directory*/) {
  return 0;
}

}  // namespace bench
