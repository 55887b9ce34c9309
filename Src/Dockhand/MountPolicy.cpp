#include "MountPolicy.h"

#include <fcntl.h>
#include <sys/mount.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "ModuleLog.h"
#include "Mounts.h"

namespace Dockhand {

namespace {

/// What the calling thread's opening has come to. A new one begins at the handler's mkdir.
struct Opening {
  std::string directory;
  /// True once the handler has asked for the type. A repair does not ask between its mkdir and its mount.
  bool isProbed = false;
  /// True from the first mount on, which finds the members below.
  bool isDecided = false;
  std::string node;
  std::string type;
  const MountRule* rule = nullptr;
  /// The errno for the handler.
  int error = 0;
  /// Why nothing is mounted, for the log. Empty while there is nothing to report.
  std::string reason;
};

thread_local Opening opening;

/// Empty if the node cannot be read or has no known type.
std::string typeOf(Platform& platform, const std::string& node) {
  const blkid_probe probe = platform.blkid_new_probe_from_filename(node);
  if (probe == nullptr) {
    return {};
  }
  const char* value = "";
  std::string type;
  if (platform.blkid_do_probe(probe) == 0 && platform.blkid_probe_lookup_value(probe, "TYPE", &value) == 0) {
    type = value;
  }
  platform.blkid_free_probe(probe);
  return type;
}

bool isMountedAt(Platform& platform, const std::string& node, const std::string& directory) {
  struct statx device {};
  struct statx mounted {};
  // DONT_SYNC: what the kernel already knows is enough, and the disk may hang.
  return platform.statx(AT_FDCWD, node, AT_STATX_DONT_SYNC, STATX_TYPE, &device) == 0 &&
         platform.statx(AT_FDCWD, directory, AT_STATX_DONT_SYNC, STATX_TYPE, &mounted) == 0 &&
         S_ISBLK(device.stx_mode) && device.stx_rdev_major == mounted.stx_dev_major &&
         device.stx_rdev_minor == mounted.stx_dev_minor;
}

/// Keeps the result of a mount that failed with `error`.
void fail(Platform& platform, int error, const std::string& what) {
  if (error == EBUSY && isMountedAt(platform, opening.node, opening.directory)) {
    opening.error = EBUSY;
    opening.reason.clear();
    return;
  }
  opening.error = error == EINVAL || error == EBUSY ? ENODEV : error;
  opening.reason = what + ": " + std::strerror(error);
}

}  // namespace

int MountPolicy::mkdir(const std::string& path, mode_t mode) {
  opening = {};
  opening.directory = path;
  return below().mkdir(path, mode);
}

blkid_probe MountPolicy::blkid_new_probe_from_filename(const std::string& path) {
  opening.isProbed = true;
  return below().blkid_new_probe_from_filename(path);
}

int MountPolicy::mount(const std::string& source, const std::string& target, const char* fileSystemType,
                       unsigned long flags, const char* options) {
  if (target == repairMountPoint && !opening.isProbed) {
    return below().mount(source, target, fileSystemType, flags, options);
  }
  if (opening.directory != target) {
    opening = {};
    opening.directory = target;
  }
  if (!opening.isDecided) {
    opening.isDecided = true;
    opening.node = source;
    opening.type = typeOf(below(), source);
    opening.rule = findRule(rules_, opening.type);
    if (opening.rule != nullptr) {
      mountByRule(*opening.rule);
    }
  }
  if (opening.rule == nullptr) {
    opening.error = 0;
    if (below().mount(source, target, fileSystemType, flags, options) != 0) {
      fail(below(), errno, std::string("no row of the mount policy is for it; as ") + fileSystemType);
    }
  }
  const int error = opening.error;
  if (error == 0) {
    opening = {};
    return 0;
  }
  errno = error;
  return -1;
}

void MountPolicy::mountByRule(const MountRule& rule) {
  const std::string line = " by line " + std::to_string(rule.line) + " of the mount policy";
  if (rule.mountAs.empty()) {
    opening.error = ENODEV;
    opening.reason = "refused" + line;
    return;
  }
  const auto mountWith = [&](unsigned long flags) {
    return below().mount(opening.node, opening.directory, rule.mountAs.c_str(), flags, rule.options.c_str());
  };
  int result = mountWith(rule.flags);
  // Write-protected media, as for mount(8).
  if (result != 0 && (errno == EROFS || errno == EACCES) && (rule.flags & MS_RDONLY) == 0) {
    result = mountWith(rule.flags | MS_RDONLY);
  }
  if (result != 0) {
    fail(below(), errno, "as " + rule.mountAs + "," + line);
  }
}

int MountPolicy::rmdir(const std::string& path) {
  if (!opening.reason.empty()) {
    usbClientLog.error(781, opening.node, " (", opening.type.empty() ? "unknown type" : opening.type,
                       ") is not mounted: ", opening.reason);
  }
  opening = {};
  return below().rmdir(path);
}

namespace {

/// Throws if others than root can write to the file.
void requireRootsFile(Platform& platform, int file) {
  struct statx status {};
  if (platform.statx(file, "", AT_EMPTY_PATH, STATX_TYPE | STATX_MODE | STATX_UID, &status) != 0) {
    throw std::runtime_error(std::strerror(errno));
  }
  if (!S_ISREG(status.stx_mode)) {
    throw std::runtime_error("it is not a regular file");
  }
  if (status.stx_uid != 0 || (status.stx_mode & (S_IWGRP | S_IWOTH)) != 0) {
    throw std::runtime_error("it must be root's, and only root may write to it");
  }
}

/// The whole file, or its beginning if that is already more than a policy may have.
std::string contentOf(Platform& platform, int file) {
  std::string text;
  std::array<char, 4096> block;
  while (text.size() <= maxMountRulesBytes) {
    const ssize_t size = platform.read(file, block.data(), block.size());
    if (size < 0) {
      throw std::runtime_error(std::strerror(errno));
    }
    if (size == 0) {
      break;
    }
    text.append(block.data(), static_cast<std::size_t>(size));
  }
  return text;
}

MountRules readMountRules(Platform& platform, const std::string& path) {
  // NONBLOCK: a fifo must not keep the daemon from starting.
  const int file = platform.open(path, O_RDONLY | O_NONBLOCK);
  if (file < 0) {
    throw std::runtime_error(std::strerror(errno));
  }
  struct Closing {
    Platform& platform;
    int file;
    ~Closing() { platform.close(file); }
  };
  const Closing closing{platform, file};
  requireRootsFile(platform, file);
  return parseMountRules(contentOf(platform, file), findGroup);
}

}  // namespace

std::unique_ptr<MountPolicy> makeMountPolicy(Platform& below) {
  const char* const path = std::getenv("DOCKHAND_MOUNTS");
  if (path == nullptr || *path == '\0') {
    return nullptr;
  }
  try {
    return std::make_unique<MountPolicy>(below, readMountRules(below, path));
  } catch (const std::runtime_error& error) {
    throw std::runtime_error("mount policy \"" + std::string(path) + "\": " + error.what());
  }
}

}  // namespace Dockhand
