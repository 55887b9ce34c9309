#include "DirectoryBounds.h"

#include <dirent.h>

#include <cerrno>
#include <cstring>
#include <memory>

namespace dockhandctl {

std::optional<bool> exceeds(const std::string& directory, const DirectoryBounds& bounds) {
  const auto close = [](DIR* stream) { ::closedir(stream); };
  const std::unique_ptr<DIR, decltype(close)> stream(::opendir(directory.c_str()), close);
  if (stream == nullptr) {
    return std::nullopt;
  }
  std::size_t entries = 0;
  std::size_t nameBytes = 0;
  errno = 0;
  while (const dirent* const entry = ::readdir(stream.get())) {
    ++entries;
    nameBytes += std::strlen(entry->d_name);
    if (entries > bounds.entries || nameBytes > bounds.nameBytes) {
      return true;
    }
  }
  return errno == 0 ? std::optional(false) : std::nullopt;
}

}  // namespace dockhandctl
