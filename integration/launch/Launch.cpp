// dockhand-launch PROGRAM [ARGUMENT]...: starts the daemon so that it sees its own mounts.
//
// The daemon looks for its mounts in the first 1024 bytes of the mount table. On a full Linux system the
// kernel's own file systems fill these bytes, and so can a user who may mount. Closing a device then finds
// nothing to unmount, and reports success. On such a system the daemon gets a mount namespace with a table of
// a few lines. /media and the directories of DOCKHAND_SHARED stay shared with the system: each side sees what
// the other mounts and unmounts there.
//
// The launcher reports every failure on standard error, and starts the daemon all the same.

#include <mntent.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "Namespace.h"

namespace fs = std::filesystem;

using launch::say;
using Words = std::vector<std::string>;

namespace {

// Leaves room for two mounted sticks, with names and options, in the 1024 bytes that the daemon reads.
constexpr std::size_t maxTableBytes = 700;

// The daemon and its tools use these, so they must be in the namespace if they are mounts of their own.
const Words usedDirectories = {"/bin", "/dev",  "/etc", "/lib", "/lib64", "/proc",
                               "/run", "/sbin", "/sys", "/tmp", "/usr"};

constexpr const char* mountPolicy = "/etc/dockhand/mounts";

std::string variable(const char* name, const std::string& defaultValue) {
  const char* const value = std::getenv(name);
  return value != nullptr ? value : defaultValue;
}

Words split(const std::string& text, char separator) {
  std::istringstream stream(text);
  Words words;
  std::string word;
  while (std::getline(stream, word, separator)) {
    words.push_back(word);
  }
  return words;
}

bool contains(const Words& words, const std::string& word) {
  return std::find(words.begin(), words.end(), word) != words.end();
}

std::size_t tableSize() {
  std::ifstream table("/proc/self/mounts", std::ios::binary);
  const std::string text{std::istreambuf_iterator<char>(table), std::istreambuf_iterator<char>()};
  if (text.empty()) {
    throw std::runtime_error("the mount table cannot be read");
  }
  return text.size();
}

/// The program or the option that lets users mount; empty if none is found.
std::string reasonUsersMayMount() {
  for (const char* folder :
       {"/bin/", "/sbin/", "/usr/bin/", "/usr/sbin/", "/usr/local/bin/", "/usr/local/sbin/"}) {
    for (const char* name : {"fusermount3", "fusermount"}) {
      std::string path = std::string(folder) + name;
      struct stat status {};
      if (stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
          ((status.st_mode & S_ISUID) != 0 ||
           getxattr(path.c_str(), "security.capability", nullptr, 0) > 0)) {
        return path;
      }
    }
  }
  FILE* const table = setmntent("/etc/fstab", "re");
  std::string found;
  while (const mntent* const entry = table != nullptr ? getmntent(table) : nullptr) {
    for (const std::string& option : split(entry->mnt_opts, ',')) {
      if (contains({"user", "users", "owner", "group"}, option.substr(0, option.find('=')))) {
        found = "option " + option + " in /etc/fstab";
      }
    }
  }
  if (table != nullptr) {
    endmntent(table);
  }
  return found;
}

/// Why the daemon gets its own namespace. If it does not, says why and returns no value.
std::optional<std::string> reasonForNamespace() {
  std::string setting = variable("DOCKHAND_NAMESPACE", "auto");
  if (!contains({"auto", "always", "never"}, setting)) {
    say("DOCKHAND_NAMESPACE is \"" + setting + "\", which is not auto, always or never; auto is used");
    setting = "auto";
  }
  if (setting == "always") {
    return "DOCKHAND_NAMESPACE=always";
  }
  const std::string size = "the mount table has " + std::to_string(tableSize()) + " bytes";
  if (setting == "auto") {
    if (tableSize() > maxTableBytes) {
      return size + ", more than " + std::to_string(maxTableBytes);
    }
    const std::string how = reasonUsersMayMount();
    if (!how.empty()) {
      return "users may mount (" + how + ")";
    }
  }
  say("the daemon stays in the system's mount namespace: " +
      (setting == "auto" ? size + " and users may not mount" : "DOCKHAND_NAMESPACE=never"));
  return std::nullopt;
}

/// True if only root can make a directory in this one, or in one above it.
bool isOnlyRoots(const fs::path& directory) {
  struct stat status {};
  const bool known = stat(directory.c_str(), &status) == 0;
  const bool othersMayWrite =
      (status.st_mode & S_IWOTH) != 0 || ((status.st_mode & S_IWGRP) != 0 && status.st_gid != 0);
  return known && status.st_uid == 0 && !othersMayWrite &&
         (directory == directory.root_path() || isOnlyRoots(directory.parent_path()));
}

/// The directories that are shared for DOCKHAND_SHARED.
Words namedDirectories() {
  Words shared;
  for (const std::string& name : split(variable("DOCKHAND_SHARED", ""), ':')) {
    fs::path path = fs::path(name + "/").lexically_normal().parent_path();
    // The daemon makes and removes the directory of a stick, so its parent must be shared.
    const std::string above = path.parent_path();
    if (above != "/" && !contains(usedDirectories, above)) {
      path = above;
    }
    std::error_code error;
    const fs::path directory = fs::canonical(path, error);
    const bool usable = path.is_absolute() && directory != "/" && fs::is_directory(directory, error);
    if (usable && isOnlyRoots(directory)) {
      shared.push_back(directory);
    } else if (!name.empty()) {
      say("DOCKHAND_SHARED: \"" + name + "\" is not shared: \"" + path.string() +
          (usable ? "\" and all above it must belong to root, and only root may write to them"
                  : "\" is not a directory that can be shared; make it, or name another"));
    }
  }
  return shared;
}

launch::View viewOf(const std::string& program) {
  launch::View view;
  Words used = usedDirectories;
  const Words searched = split(variable("PATH", ""), ':');
  used.insert(used.end(), searched.begin(), searched.end());
  used.push_back(variable("RAVEL_SOCKET_DIR", "/run/ravel"));
  used.push_back(fs::path(variable("DOCKHAND_MOUNTS", "")).parent_path());
  used.push_back(fs::absolute(program).parent_path());
  for (const std::string& path : used) {
    std::error_code ignored;
    const fs::path canonical = fs::weakly_canonical(path, ignored);
    if (canonical.is_absolute()) {
      view.used.push_back(canonical);
    }
  }
  fs::create_directories("/media");
  Words shared = namedDirectories();
  shared.push_back(fs::canonical("/media"));
  // A directory below another is shared with that one.
  std::sort(shared.begin(), shared.end());
  for (const std::string& path : shared) {
    if (view.shared.empty() || (path + "/").rfind(view.shared.back() + "/", 0) != 0) {
      view.shared.push_back(path);
    }
  }
  return view;
}

/// Unmounts what a daemon left that was killed while it repaired a disk. Otherwise it stays mounted until the
/// next repair, even if the disk is closed for removal.
void unmountLeftRepair() {
  const char* const place = "/media/disk_tmp";
  int count = 0;
  int result = 0;
  while (count < 10 && (result = umount2(place, UMOUNT_NOFOLLOW)) == 0) {
    ++count;
  }
  if (result != 0 && errno != EINVAL && errno != ENOENT) {
    say("\"" + std::string(place) + "\" stays mounted: " + std::strerror(errno));
  } else if (count > 0 && rmdir(place) != 0) {
    say("\"" + std::string(place) + "\" cannot be removed: " + std::strerror(errno));
  }
}

/// An empty variable means that the image's policy is not wanted. A link that leads nowhere counts as a
/// policy, so that the daemon reports it.
void choosePolicy() {
  std::error_code ignored;
  if (fs::exists(fs::symlink_status(mountPolicy, ignored))) {
    setenv("DOCKHAND_MOUNTS", mountPolicy, 0);
  }
}

void chooseNamespace(const std::string& program) {
  const std::optional<std::string> reason = reasonForNamespace();
  if (reason) {
    const launch::View view = viewOf(program);
    if (launch::canEnterNamespace(view)) {
      launch::enterNamespace(view);
      say("the daemon has a mount namespace of its own: " + *reason);
    } else {
      say("the daemon stays in the system's mount namespace, although " + *reason);
    }
  }
  if (tableSize() > maxTableBytes) {
    say("the daemon's mount table has " + std::to_string(tableSize()) +
        " bytes, of which it reads 1024; closing may not find its mounts; shorten the table");
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fputs("usage: dockhand-launch PROGRAM [ARGUMENT]...\n", stderr);
    return 2;
  }
  // If the parent ignored SIGCHLD, waitpid would not get the status of a child.
  std::signal(SIGCHLD, SIG_DFL);
  unmountLeftRepair();
  choosePolicy();
  try {
    chooseNamespace(argv[1]);
  } catch (const std::exception& error) {
    say(std::string("the daemon starts without its own mount namespace: ") + error.what());
  }
  execvp(argv[1], argv + 1);
  say("\"" + std::string(argv[1]) + "\": " + std::strerror(errno));
  return 127;
}
