#include "Mounts.h"

#include <fcntl.h>
#include <libmount/libmount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <system_error>

#include "Device.h"
#include "Failure.h"
#include "FileDescriptor.h"
#include "Text.h"

namespace dockhandctl {
namespace {

namespace fs = std::filesystem;

constexpr auto nodeFolder = "/dev";
constexpr auto nodePrefix = "usb_storage_";
/// The kernel writes these as octal numbers into the mount table; the daemon writes only blanks so.
constexpr auto escapedByTheKernel = "\t\n\\";
/// The daemon reads this many bytes of the mount table.
constexpr std::size_t maxTableBytes = 1024;

std::string systemPath(const std::string& path) {
  const char* const root = std::getenv("DOCKHANDCTL_TEST_ROOT");
  return (root != nullptr ? root : "") + path;
}

struct TableDeleter {
  void operator()(libmnt_table* table) const { mnt_unref_table(table); }
};
struct IteratorDeleter {
  void operator()(libmnt_iter* iterator) const { mnt_free_iter(iterator); }
};

struct Mount {
  dev_t device;
  std::string target;
  std::string fileSystem;
};

std::string textOf(const char* text) {
  return text != nullptr ? text : "";
}

/// No value if it cannot be read.
std::optional<std::vector<Mount>> readMountTable(const std::string& process) {
  const std::string path = systemPath("/proc/" + process + "/mountinfo");
  const std::unique_ptr<libmnt_table, TableDeleter> table(mnt_new_table_from_file(path.c_str()));
  const std::unique_ptr<libmnt_iter, IteratorDeleter> iterator(mnt_new_iter(MNT_ITER_FORWARD));
  if (table == nullptr || iterator == nullptr) {
    return std::nullopt;
  }
  std::vector<Mount> result;
  libmnt_fs* entry = nullptr;
  while (mnt_table_next_fs(table.get(), iterator.get(), &entry) == 0) {
    result.push_back(
        {mnt_fs_get_devno(entry), textOf(mnt_fs_get_target(entry)), textOf(mnt_fs_get_fstype(entry))});
  }
  return result;
}

/// The number of the device behind a node. 0, which no mount has, if there is no node.
dev_t numberOf(const std::string& kernelName) {
  struct stat status {};
  const std::string node = systemPath(nodeFolder) + "/" + nodePrefix + kernelName;
  return ::stat(node.c_str(), &status) == 0 ? status.st_rdev : 0;
}

std::optional<std::string> typeByUdev(dev_t device) {
  std::ifstream file(
      systemPath("/run/udev/data/b" + std::to_string(major(device)) + ":" + std::to_string(minor(device))));
  const std::string key = "E:ID_FS_TYPE=";
  for (std::string line; std::getline(file, line);) {
    if (line.rfind(key, 0) == 0) {
      return line.substr(key.size());
    }
  }
  return std::nullopt;
}

/// The path of what the kernel finds there, so that the kernel decides which links may be followed. No value,
/// and errno, if it finds nothing.
std::optional<std::string> resolveExisting(const std::string& path) {
  const ravel::rpc::FileDescriptor file(::open(path.c_str(), O_PATH | O_CLOEXEC));
  if (!file.valid()) {
    return std::nullopt;
  }
  std::error_code error;
  std::string result = fs::read_symlink("/proc/self/fd/" + std::to_string(file.get()), error);
  errno = error.value();
  return error ? std::nullopt : std::optional(result);
}

/// Like resolveExisting(), but the last part may be missing.
std::optional<std::string> resolve(const std::string& path) {
  auto result = resolveExisting(path);
  if (result || errno != ENOENT) {
    return result;
  }
  const std::string trimmed = path.substr(0, path.find_last_not_of('/') + 1);
  const auto slash = trimmed.rfind('/') + 1;
  result = resolveExisting(trimmed.substr(0, slash));
  if (result) {
    *result += (*result == "/" ? "" : "/") + trimmed.substr(slash);
  }
  return result;
}

}  // namespace

Mounted readMounted(const std::string& kernelName, pid_t daemon) {
  Mounted result;
  const dev_t device = numberOf(kernelName);
  const auto add = [&](const std::vector<Mount>& table, std::vector<std::string>& to) {
    for (const Mount& mount : table) {
      if (device != 0 && mount.device == device &&
          std::find(result.at.begin(), result.at.end(), mount.target) == result.at.end()) {
        to.push_back(mount.target);
        result.fileSystem = mount.fileSystem;
      }
    }
  };
  const auto table = readMountTable("self");
  if (!table) {
    throw Failure(ownFailure, "\"" + systemPath("/proc/self/mountinfo") +
                                  "\" cannot be read, so the mounts are unknown; mount /proc");
  }
  add(*table, result.at);
  add(readMountTable(std::to_string(daemon)).value_or(std::vector<Mount>()), result.atForDaemonOnly);
  if (!result.fileSystem) {
    result.fileSystem = typeByUdev(device);
  }
  return result;
}

Mounted readMountedOfDisk(const std::string& kernelName, pid_t daemon) {
  const std::string disk = nodePrefix + diskName(kernelName);
  Mounted result;
  std::error_code ignored;  // without /dev there is no node
  for (const auto& entry : fs::directory_iterator(systemPath(nodeFolder), ignored)) {
    const std::string name = entry.path().filename();
    if (name.rfind(disk, 0) == 0 && name.find_first_not_of("0123456789", disk.size()) == std::string::npos) {
      const Mounted found = readMounted(name.substr(std::string(nodePrefix).size()), daemon);
      result.at.insert(result.at.end(), found.at.begin(), found.at.end());
      result.atForDaemonOnly.insert(result.atForDaemonOnly.end(), found.atForDaemonOnly.begin(),
                                    found.atForDaemonOnly.end());
    }
  }
  return result;
}

bool isMounted(const Mounted& mounted) {
  return !mounted.at.empty() || !mounted.atForDaemonOnly.empty();
}

std::string placesText(const Mounted& mounted) {
  std::string result = quotedList(mounted.at);
  for (const std::string& path : mounted.atForDaemonOnly) {
    result += (result.empty() ? "" : ", ") + quotedList({path}) + " (for dockhand alone)";
  }
  return result;
}

std::string canonicalPath(const std::string& path) {
  return resolve(path).value_or(path);
}

std::string closablePath(const std::string& path) {
  const auto resolved = resolve(path);
  if (!resolved) {
    const std::error_code error(errno, std::generic_category());
    throw std::system_error(error, quotedList({path}) + " cannot be resolved");
  }
  const bool isEscaped = resolved->find_first_of(escapedByTheKernel) != std::string::npos;
  if (isEscaped || *resolved == "/" || resolved->size() >= maxTableBytes) {
    throw std::runtime_error(quotedList({*resolved}) +
                             (isEscaped          ? " contains a tab, a newline or a backslash"
                              : *resolved == "/" ? " is the root directory"
                                                 : " is too long") +
                             ", so dockhand could not close the device there; choose another directory");
  }
  return *resolved;
}

std::string quotedList(const std::vector<std::string>& paths) {
  std::string result;
  for (const std::string& path : paths) {
    result += (result.empty() ? "\"" : ", \"") + printable(path) + "\"";
  }
  return result;
}

}  // namespace dockhandctl
