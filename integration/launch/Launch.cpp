// dockhand-launch PROGRAM [ARGUMENT]...: starts the daemon where it can see what it has mounted.
//
// The daemon looks for its mounts in the first 1024 bytes of the mount table. On a full Linux system the
// kernel's own file systems fill those, and a user who may mount can do it anywhere; closing a device then
// finds nothing to unmount, and reports success. There the daemon gets a mount namespace with a table of a
// few lines. /media and what DOCKHAND_SHARED names stay shared with the system: what one side mounts and
// unmounts there, the other side sees.
//
// Whatever fails here is said on standard error, and the daemon is started all the same.

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

// Room for two mounted sticks, with names and options, below the 1024 bytes that the daemon reads.
constexpr std::size_t longestTable = 700;

// What the daemon and its tools use, where it is a mount of its own.
const Words usedDirectories = {"/bin", "/dev",  "/etc", "/lib", "/lib64", "/proc",
                               "/run", "/sbin", "/sys", "/tmp", "/usr"};

std::string variable(const char* name, const std::string& otherwise) {
  const char* const value = std::getenv(name);
  return value != nullptr ? value : otherwise;
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

/// What lets users mount, as far as one can tell; empty when nothing does.
std::string usersMayMount() {
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

/// Why the daemon gets a namespace of its own; nothing when it does not, which is then said.
std::optional<std::string> reasonForNamespace() {
  std::string setting = variable("DOCKHAND_NAMESPACE", "auto");
  if (!contains({"auto", "always", "never"}, setting)) {
    say("DOCKHAND_NAMESPACE is \"" + setting + "\", not auto, always or never; auto is used");
    setting = "auto";
  }
  if (setting == "always") {
    return "DOCKHAND_NAMESPACE=always";
  }
  const std::string size = "the mount table has " + std::to_string(tableSize()) + " bytes";
  if (setting == "auto") {
    if (tableSize() > longestTable) {
      return size + ", more than " + std::to_string(longestTable);
    }
    const std::string how = usersMayMount();
    if (!how.empty()) {
      return "users may mount (" + how + ")";
    }
  }
  say("the daemon stays in the system's mount namespace: " +
      (setting == "auto" ? size + " and users may not mount" : "DOCKHAND_NAMESPACE=never"));
  return std::nullopt;
}

/// True when nobody but root can make a directory on the way to this one, or in it.
bool isRootsAlone(const fs::path& directory) {
  struct stat status {};
  const bool known = stat(directory.c_str(), &status) == 0;
  const bool othersMayWrite =
      (status.st_mode & S_IWOTH) != 0 || ((status.st_mode & S_IWGRP) != 0 && status.st_gid != 0);
  return known && status.st_uid == 0 && !othersMayWrite &&
         (directory == directory.root_path() || isRootsAlone(directory.parent_path()));
}

/// The directories of DOCKHAND_SHARED as they are shared.
Words namedDirectories() {
  Words shared;
  for (const std::string& name : split(variable("DOCKHAND_SHARED", ""), ':')) {
    fs::path path = fs::path(name + "/").lexically_normal().parent_path();
    // The daemon makes and removes the directory that a stick is on, so the one above has to be shared.
    const std::string above = path.parent_path();
    if (above != "/" && !contains(usedDirectories, above)) {
      path = above;
    }
    std::error_code error;
    const fs::path directory = fs::canonical(path, error);
    const bool usable = path.is_absolute() && directory != "/" && fs::is_directory(directory, error);
    if (usable && isRootsAlone(directory)) {
      shared.push_back(directory);
    } else if (!name.empty()) {
      say("DOCKHAND_SHARED: \"" + name + "\" is not shared: " + path.string() +
          (usable ? " and all above it must be root's to write to only"
                  : " is no directory that can be shared"));
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
  // What is below another comes along with that.
  std::sort(shared.begin(), shared.end());
  for (const std::string& path : shared) {
    if (view.shared.empty() || (path + "/").rfind(view.shared.back() + "/", 0) != 0) {
      view.shared.push_back(path);
    }
  }
  return view;
}

/// What a daemon has left that was killed while it repaired a disk. No later one would unmount it before the
/// next repair, and a disk that is closed for removal would still be mounted.
void unmountLeftRepair() {
  const char* const place = "/media/disk_tmp";
  int count = 0;
  int result = 0;
  while (count < 10 && (result = umount2(place, UMOUNT_NOFOLLOW)) == 0) {
    ++count;
  }
  if (result != 0 && errno != EINVAL && errno != ENOENT) {
    say(std::string(place) + " stays mounted: " + std::strerror(errno));
  } else if (count > 0 && rmdir(place) != 0) {
    say(std::string(place) + " stays there: " + std::strerror(errno));
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
  if (tableSize() > longestTable) {
    say("the daemon's mount table has " + std::to_string(tableSize()) +
        " bytes, of which it reads 1024; closing may not find its mounts");
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fputs("usage: dockhand-launch PROGRAM [ARGUMENT]...\n", stderr);
    return 2;
  }
  // Where it is ignored, nobody hears of the end of a child.
  std::signal(SIGCHLD, SIG_DFL);
  unmountLeftRepair();
  try {
    chooseNamespace(argv[1]);
  } catch (const std::exception& error) {
    say(std::string("the daemon starts without a mount namespace that is made for it: ") + error.what());
  }
  execvp(argv[1], argv + 1);
  say(std::string(argv[1]) + ": " + std::strerror(errno));
  return 127;
}
