#include "Namespace.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <system_error>

namespace launch {

namespace {

void require(bool succeeded, const std::string& step) {
  if (!succeeded) {
    throw std::system_error(errno, std::generic_category(), step);
  }
}

/// The descriptor stays on this directory whatever is renamed or mounted. Only exec closes it.
struct Directory {
  std::string path;
  int descriptor = -1;
};

/// The kernel's number, in fdinfo and mountinfo, of the mount of a descriptor.
int mountNumber(int descriptor) {
  const std::string name = "/proc/self/fdinfo/" + std::to_string(descriptor);
  std::ifstream lines(name);
  std::string key;
  int number = -1;
  while (lines >> key && key != "mnt_id:") {
    std::getline(lines, key);
  }
  require(static_cast<bool>(lines >> number), name);
  return number;
}

/// True if the mount has peers, or can have them: 36 35 98:0 / /media rw shared:1 - tmpfs media rw
bool isShared(int number) {
  std::ifstream table("/proc/self/mountinfo");
  std::string line;
  while (std::getline(table, line)) {
    std::istringstream words(line);
    int found = -1;
    if (words >> found && found == number) {
      // A hyphen ends the options after the fixed fields.
      std::string word;
      while (words >> word && word != "-") {
        if (word.rfind("shared:", 0) == 0) {
          return true;
        }
      }
    }
  }
  return false;
}

/// The directories on the way to a canonical path where a mount begins; the first is "/".
std::vector<Directory> mountsOnTheWay(const std::string& path) {
  std::vector<Directory> found;
  int lastNumber = -1;
  std::size_t end = 0;
  while (end != std::string::npos) {
    const std::string part = end == 0 ? "/" : path.substr(0, end);
    const int descriptor = open(part.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (descriptor < 0) {
      break;
    }
    const int number = mountNumber(descriptor);
    if (number != lastNumber) {
      found.push_back({part, descriptor});
    }
    lastNumber = number;
    end = end == path.size() ? std::string::npos : std::min(path.find('/', end + 1), path.size());
  }
  require(!found.empty(), "/");
  return found;
}

bool isWithin(const std::string& path, const std::string& directory) {
  return path == directory || path.rfind(directory + "/", 0) == 0;
}

void setPropagation(const std::string& path, unsigned long type) {
  require(mount(nullptr, path.c_str(), nullptr, type, nullptr) == 0, "propagation of " + path);
}

void bind(const std::string& source, const std::string& target, unsigned long recursive) {
  require(mount(source.c_str(), target.c_str(), nullptr, MS_BIND | recursive, nullptr) == 0,
          "bind on " + target);
}

void makeDirectory(const std::string& path) {
  require(mkdir(path.c_str(), 0700) == 0, path);
}

/// Shares the mount that holds the directory, and the mounts below it. A stick that is not shared would be
/// unmounted only here, and stay in the system, where somebody may have mounted something inside it.
void share(const std::string& path) {
  const Directory holder = mountsOnTheWay(path).back();
  if (!isShared(mountNumber(holder.descriptor))) {
    setPropagation("/proc/self/fd/" + std::to_string(holder.descriptor), MS_SHARED | MS_REC);
  }
}

}  // namespace

void enterNamespace(const View& view) {
  std::for_each(view.shared.begin(), view.shared.end(), share);
  require(unshare(CLONE_NEWNS) == 0, "unshare");

  // Look them up only now, because the kernel binds no mount of another namespace. The map has the order of
  // the paths, so a mount comes before the mounts on it.
  std::map<std::string, Directory> mounts;
  for (const auto* paths : {&view.used, &view.shared}) {
    for (const std::string& path : *paths) {
      for (const Directory& mount : mountsOnTheWay(path)) {
        mounts.emplace(mount.path, mount);
      }
    }
  }
  std::vector<Directory> shared;
  for (const std::string& path : view.shared) {
    const int descriptor = open(path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    require(descriptor >= 0, path);
    shared.push_back({path, descriptor});
    // The mounts below come with the directory.
    for (auto mount = mounts.begin(); mount != mounts.end();) {
      mount = isWithin(mount->first, path) ? mounts.erase(mount) : std::next(mount);
    }
  }

  // Build the new root on a file system over /proc, because /proc is always a mount and can be made private
  // by itself. The /proc below is still the working directory, and has all descriptors.
  const std::string stage = "/proc";
  const std::string root = stage + "/root";
  const auto source = [](const Directory& directory) {
    return "self/fd/" + std::to_string(directory.descriptor);
  };
  require(chdir(stage.c_str()) == 0, stage);
  setPropagation(stage, MS_PRIVATE);
  require(mount("dockhand-launch", stage.c_str(), "tmpfs", 0, "mode=700") == 0, "tmpfs on " + stage);

  // First the shared directories. Everything else is made private before it is bound, so nobody can mount
  // into it.
  const auto staged = [&stage](const Directory& directory) {
    return stage + "/" + std::to_string(directory.descriptor);
  };
  for (const Directory& directory : shared) {
    makeDirectory(staged(directory));
    bind(source(directory), staged(directory), MS_REC);
  }
  makeDirectory(root);
  for (const auto& [path, directory] : mounts) {
    setPropagation(source(directory), MS_PRIVATE);
    bind(source(directory), root + path, 0);
  }
  for (const Directory& directory : shared) {
    const std::string target = root + directory.path;
    require(mount(staged(directory).c_str(), target.c_str(), nullptr, MS_MOVE, nullptr) == 0,
            "move to " + target);
  }

  // pivot_root leaves the old root mounted over the new one. Make all of it private first, or its unmount
  // would unmount the sticks everywhere.
  require(chdir(root.c_str()) == 0, root);
  require(syscall(SYS_pivot_root, ".", ".") == 0, "pivot_root");
  require(fchdir(mounts.at("/").descriptor) == 0, "the old root");
  setPropagation(".", MS_PRIVATE | MS_REC);
  require(umount2(".", MNT_DETACH) == 0, "umount of the old root");
  require(chdir("/") == 0, "/");
}

bool canEnterNamespace(const View& view) {
  const pid_t child = fork();
  if (child == 0) {
    try {
      require(unshare(CLONE_NEWNS) == 0, "unshare");
      enterNamespace(view);
      _exit(0);
    } catch (const std::exception& error) {
      say(std::string("cannot make a mount namespace: ") + error.what());
      _exit(1);
    }
  }
  int status = 0;
  return child > 0 && waitpid(child, &status, 0) == child && status == 0;
}

void say(const std::string& text) {
  std::fprintf(stderr, "dockhand-launch: %s\n", text.c_str());
}

}  // namespace launch
