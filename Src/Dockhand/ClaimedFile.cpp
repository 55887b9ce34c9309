#include "ClaimedFile.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>

namespace Dockhand {

namespace {

/// STATX_ATTR_MOUNT_ROOT, which headers of kernels before 5.8 lack.
constexpr std::uint64_t mountRootAttribute = 0x2000;

constexpr const char* movedSuffix = ".moved-";

/// What the kernel itself knows of a path, without asking the file system that holds it.
struct PathStatus {
  /// 0 or errno. After an error the other members are zero.
  int error;
  bool isMountRoot;
  mode_t mode;
  uid_t owner;
  std::uint64_t linkCount;
};

/// A descriptor that names a path without opening the file (O_PATH).
struct Descriptor {
  Platform& platform;
  const int number;

  Descriptor(Platform& openingPlatform, const std::string& path, int flags)
      : platform(openingPlatform), number(openingPlatform.open(path, O_PATH | flags)) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (number >= 0) {
      platform.close(number);
    }
  }
};

std::string directoryOf(const std::string& path) {
  return path.substr(0, path.rfind('/') + 1);
}

std::string nameOf(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

/// True if statx reports mount roots, as it does since Linux 5.8. False too for the C library's emulation on
/// kernels without statx, which waits for the file system.
bool statxReportsMountRoots(Platform& platform) {
  struct statx status {};
  return platform.statx(AT_FDCWD, "/", AT_STATX_DONT_SYNC, 0, &status) == 0 &&
         (status.stx_attributes_mask & mountRootAttribute) != 0;
}

PathStatus lookByStatx(Platform& platform, const std::string& path) {
  constexpr int flags = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT | AT_STATX_DONT_SYNC;
  struct statx status {};
  if (platform.statx(AT_FDCWD, path, flags, 0, &status) != 0) {
    return {errno, {}, {}, {}, {}};
  }
  const bool isMountRoot = (status.stx_attributes & mountRootAttribute) != 0;
  return {0, isMountRoot, status.stx_mode, status.stx_uid, status.stx_nlink};
}

/// The line with the number of the mount that a descriptor is in. Empty if it cannot be read.
std::string readMountLine(const Descriptor& descriptor) {
  Platform& platform = descriptor.platform;
  const int information = platform.open("/proc/self/fdinfo/" + std::to_string(descriptor.number), O_RDONLY);
  if (information < 0) {
    return {};
  }
  // 256 bytes hold the first three lines (position, flags, mount), which have fewer than 40 characters each.
  std::array<char, 256> text;
  const ssize_t size = platform.read(information, text.data(), text.size());
  platform.close(information);
  std::istringstream lines(std::string(text.data(), size > 0 ? static_cast<std::size_t>(size) : 0));
  std::string line;
  while (std::getline(lines, line) && line.rfind("mnt_id:", 0) != 0) {
  }
  return line;
}

PathStatus lookByMountNumber(Platform& platform, const std::string& path) {
  const Descriptor file(platform, path, O_NOFOLLOW);
  if (file.number < 0) {
    return {errno, {}, {}, {}, {}};
  }
  const std::string mount = readMountLine(file);
  const Descriptor directory(platform, directoryOf(path), O_DIRECTORY);
  const std::string directoryMount = readMountLine(directory);
  if (mount.empty() || mount != directoryMount) {
    return {0, true, {}, {}, {}};
  }
  struct statx status {};
  if (platform.statx(file.number, "", AT_EMPTY_PATH, STATX_BASIC_STATS, &status) != 0) {
    return {errno, {}, {}, {}, {}};
  }
  return {0, false, status.stx_mode, status.stx_uid, status.stx_nlink};
}

PathStatus lookAt(Platform& platform, const std::string& path) {
  return statxReportsMountRoots(platform) ? lookByStatx(platform, path) : lookByMountNumber(platform, path);
}

enum class Found { nothing, ours, foreign, unmovable };

Found classify(Platform& platform, const std::string& path) {
  const PathStatus status = lookAt(platform, path);
  if (status.error == ENOENT) {
    return Found::nothing;
  }
  if (status.error != 0 || status.isMountRoot) {
    return Found::unmovable;
  }
  const bool onlyWeMayWrite = status.owner == platform.geteuid() && (status.mode & (S_IWGRP | S_IWOTH)) == 0;
  // Another hard link may be somebody's file.
  return S_ISREG(status.mode) && onlyWeMayWrite && status.linkCount == 1 ? Found::ours : Found::foreign;
}

/// Counts our directories of things that were moved aside from `path`; nullopt if they cannot be counted.
/// Directories of users with such names do not count: they could keep us from moving anything.
std::optional<int> countMovedAside(Platform& platform, const std::string& path) {
  const std::string directory = directoryOf(path);
  const std::string beginning = nameOf(path) + movedSuffix;
  const auto close = [&platform](DIR* opened) { platform.closedir(opened); };
  const std::unique_ptr<DIR, decltype(close)> entries(platform.opendir(directory), close);
  if (entries == nullptr) {
    return std::nullopt;
  }
  int count = 0;
  while (const dirent* entry = platform.readdir(entries.get())) {
    const std::string name = entry->d_name;
    if (name.compare(0, beginning.size(), beginning) == 0) {
      const PathStatus status = lookAt(platform, directory + name);
      const bool isOurDirectory =
          S_ISDIR(status.mode) && status.owner == platform.geteuid() && !status.isMountRoot;
      count += isOurDirectory ? 1 : 0;
    }
  }
  return count;
}

/// Returns movedAside once nothing is left at the path, also if somebody else removed it.
Claim moveAside(Platform& platform, const std::string& path) {
  const std::optional<int> count = countMovedAside(platform, path);
  if (count >= maxMovedAside) {
    return Claim::tooManyMoved;
  }
  // Into a new directory of our own, where nobody can have taken the name.
  std::string newDirectory = path + movedSuffix + "XXXXXX";
  if (!count || platform.mkdtemp(newDirectory.data()) == nullptr) {
    return Claim::refused;
  }
  if (platform.rename(path, newDirectory + '/' + nameOf(path)) == 0) {
    return Claim::movedAside;
  }
  const bool hasVanished = errno == ENOENT;
  platform.rmdir(newDirectory);
  return hasVanished ? Claim::movedAside : Claim::refused;
}

}  // namespace

Claim claimFile(Platform& platform, const std::string& path) {
  static std::mutex mutex;
  const std::lock_guard<std::mutex> lock(mutex);
  // Someone may race us; 20 tries are enough.
  constexpr int maxAttempts = 20;
  Claim claim = Claim::ours;
  for (int attempt = 0; attempt < maxAttempts; ++attempt) {
    switch (classify(platform, path)) {
      case Found::ours:
        return claim;
      case Found::nothing:
        if (platform.mknod(path, S_IFREG | 0644) == 0 || errno != EEXIST) {
          return claim;
        }
        break;
      case Found::foreign:
        claim = moveAside(platform, path);
        if (claim != Claim::movedAside) {
          return claim;
        }
        break;
      case Found::unmovable:
        return Claim::refused;
    }
  }
  return Claim::refused;
}

}  // namespace Dockhand
