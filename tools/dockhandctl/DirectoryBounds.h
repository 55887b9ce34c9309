#ifndef DOCKHANDCTL_DIRECTORYBOUNDS_H
#define DOCKHANDCTL_DIRECTORYBOUNDS_H

#include <cstddef>
#include <optional>
#include <string>

namespace dockhandctl {

/// How much of one directory the daemon reads (its DirectoryLimits). Its list of files lacks the rest.
struct DirectoryBounds {
  std::size_t entries = 4194304;
  std::size_t nameBytes = std::size_t{64} * 1024 * 1024;
};

/// True if a directory has more. No value if we may not read it.
std::optional<bool> exceeds(const std::string& directory, const DirectoryBounds& bounds);

}  // namespace dockhandctl

#endif  // DOCKHANDCTL_DIRECTORYBOUNDS_H
