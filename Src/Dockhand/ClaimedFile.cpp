#include "ClaimedFile.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>

namespace Dockhand {

namespace {

/// STATX_ATTR_MOUNT_ROOT, which headers of kernels before 5.8 lack.
constexpr std::uint64_t mountRootAttribute = 0x2000;

constexpr const char* movedSuffix = ".moved-";

/// What the kernel tells of a path by itself, without asking the file system that it is in.
struct Look {
  /// 0 or errno; after an error the rest is zero.
  int error;
  bool isMountRoot;
  mode_t mode;
  uid_t owner;
  std::uint64_t names;
};

/// A descriptor that stands for a path and opens nothing.
struct Descriptor {
  const int number;

  Descriptor(const std::string& path, int flags) : number(::open(path.c_str(), O_PATH | O_CLOEXEC | flags)) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() { ::close(number); }
};

std::string directoryOf(const std::string& path) {
  return path.substr(0, path.rfind('/') + 1);
}

std::string nameOf(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

/// Since Linux 5.8 statx tells what is mounted. The C library's stand-in for kernels without statx waits for
/// the file system, and is found out in this way too.
bool statxTellsMountRoots() {
  struct statx status {};
  return ::statx(AT_FDCWD, "/", AT_STATX_DONT_SYNC, 0, &status) == 0 &&
         (status.stx_attributes_mask & mountRootAttribute) != 0;
}

Look lookByStatx(const std::string& path) {
  constexpr int flags = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT | AT_STATX_DONT_SYNC;
  struct statx status {};
  if (::statx(AT_FDCWD, path.c_str(), flags, 0, &status) != 0) {
    return {errno, {}, {}, {}, {}};
  }
  const bool isMountRoot = (status.stx_attributes & mountRootAttribute) != 0;
  return {0, isMountRoot, status.stx_mode, status.stx_uid, status.stx_nlink};
}

/// The line with the number of the mount that a descriptor is in; empty where it cannot be read.
std::string mountOf(const Descriptor& descriptor) {
  std::ifstream information("/proc/self/fdinfo/" + std::to_string(descriptor.number));
  std::string line;
  while (std::getline(information, line) && line.rfind("mnt_id:", 0) != 0) {
  }
  return line;
}

Look lookByMountNumber(const std::string& path) {
  const Descriptor file(path, O_NOFOLLOW);
  if (file.number < 0) {
    return {errno, {}, {}, {}, {}};
  }
  const std::string mount = mountOf(file);
  const Descriptor directory(directoryOf(path), O_DIRECTORY);
  const std::string mountAround = mountOf(directory);
  if (mount.empty() || mount != mountAround) {
    return {0, true, {}, {}, {}};
  }
  struct stat status {};
  if (::fstat(file.number, &status) != 0) {
    return {errno, {}, {}, {}, {}};
  }
  return {0, false, status.st_mode, status.st_uid, status.st_nlink};
}

Look lookAt(const std::string& path) {
  return statxTellsMountRoots() ? lookByStatx(path) : lookByMountNumber(path);
}

enum class Found { nothing, ours, foreign, outOfReach };

Found whatIsAt(const std::string& path) {
  const Look look = lookAt(path);
  if (look.error == ENOENT) {
    return Found::nothing;
  }
  if (look.error != 0 || look.isMountRoot) {
    return Found::outOfReach;
  }
  const bool onlyOursToWrite = look.owner == ::geteuid() && (look.mode & (S_IWGRP | S_IWOTH)) == 0;
  // Another hard link may be somebody's file.
  return S_ISREG(look.mode) && onlyOursToWrite && look.names == 1 ? Found::ours : Found::foreign;
}

/// 0 or errno.
int makeFile(const std::string& path) {
  const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (file < 0) {
    return errno;
  }
  ::close(file);
  return 0;
}

/// How many directories of ours hold what was moved aside from `path`; nothing if they cannot be counted.
/// Users may use such names too: theirs do not count, or they could keep us from ever moving anything.
std::optional<int> countMovedAside(const std::string& path) {
  const std::string directory = directoryOf(path);
  const std::string beginning = nameOf(path) + movedSuffix;
  const std::unique_ptr<DIR, int (*)(DIR*)> entries(::opendir(directory.c_str()), ::closedir);
  if (entries == nullptr) {
    return std::nullopt;
  }
  int count = 0;
  while (const dirent* entry = ::readdir(entries.get())) {
    const std::string name = entry->d_name;
    if (name.compare(0, beginning.size(), beginning) == 0) {
      const Look look = lookAt(directory + name);
      const bool isDirectoryOfOurs = S_ISDIR(look.mode) && look.owner == ::geteuid() && !look.isMountRoot;
      count += isDirectoryOfOurs ? 1 : 0;
    }
  }
  return count;
}

/// movedAside once nothing is left at the path, also if it went by itself.
Claim moveAside(const std::string& path) {
  const std::optional<int> count = countMovedAside(path);
  if (count >= maxMovedAside) {
    return Claim::tooManyMoved;
  }
  // A directory of our own, so that nobody can have taken the new name.
  std::string place = path + movedSuffix + "XXXXXX";
  if (!count || ::mkdtemp(place.data()) == nullptr) {
    return Claim::refused;
  }
  if (::rename(path.c_str(), (place + '/' + nameOf(path)).c_str()) == 0) {
    return Claim::movedAside;
  }
  const bool wentByItself = errno == ENOENT;
  ::rmdir(place.c_str());
  return wentByItself ? Claim::movedAside : Claim::refused;
}

}  // namespace

Claim claimFile(const std::string& path) {
  static std::mutex oneAtATime;
  const std::lock_guard<std::mutex> lock(oneAtATime);
  // Someone may race us; 20 tries are enough.
  constexpr int maxAttempts = 20;
  Claim claim = Claim::ours;
  for (int attempt = 0; attempt < maxAttempts; ++attempt) {
    switch (whatIsAt(path)) {
      case Found::ours:
        return claim;
      case Found::nothing:
        if (makeFile(path) != EEXIST) {
          return claim;
        }
        break;
      case Found::foreign:
        claim = moveAside(path);
        if (claim != Claim::movedAside) {
          return claim;
        }
        break;
      case Found::outOfReach:
        return Claim::refused;
    }
  }
  return Claim::refused;
}

}  // namespace Dockhand
