#ifndef DOCKHANDCTL_DIRECTORYBOUNDS_H
#define DOCKHANDCTL_DIRECTORYBOUNDS_H

#include <cstddef>
#include <optional>
#include <string>

namespace dockhandctl {

/// How much of one directory the daemon reads (its DirectoryLimits). What lies behind is not in its list of
/// files.
struct DirectoryBounds {
  std::size_t entries = 4194304;
  std::size_t nameBytes = std::size_t{64} * 1024 * 1024;
};

/// Whether a directory has more than that. Nothing: it may not be read here.
std::optional<bool> exceeds(const std::string& directory, const DirectoryBounds& bounds);

}  // namespace dockhandctl

#endif  // DOCKHANDCTL_DIRECTORYBOUNDS_H
