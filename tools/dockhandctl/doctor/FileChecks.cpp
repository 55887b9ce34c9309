#include <dirent.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>

#include "Checks.h"

namespace dockhandctl::doctor {

Findings checkMedia(const Machine& machine) {
  const std::string check = "media";
  const std::string path = machine.root + "/media";
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
    return {{check, State::problem, "/media is not a directory: nothing can be opened", "mkdir /media"}};
  }
  if (machine.isOnReadOnlyFileSystem(path)) {
    return {{check, State::problem, "/media is on a read-only file system: no mount point can be made there",
             "mount a tmpfs at /media"}};
  }
  if (status.st_uid != machine.owner || (status.st_mode & S_IWUSR) == 0) {
    return {{check, State::warning, "the daemon may not write to /media", "give it to root, with mode 0755"}};
  }
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return {{check, State::problem,
             "others than root may write to /media, and redirect the mount of a stick with a link",
             "chmod 0755 /media, and install integration/tmpfiles"}};
  }
  return {{check, State::ok, "only root may write to /media", ""}};
}

Findings checkTmp(const Machine& machine) {
  const std::string check = "tmp";
  struct stat status {};
  if (::stat((machine.root + "/tmp").c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
    return {
        {check, State::problem, "/tmp is not a directory: no disk tool can be run", "mkdir -m 1777 /tmp"}};
  }
  const bool forOthers = (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
  if (status.st_uid != machine.owner || (forOthers && (status.st_mode & S_ISVTX) == 0)) {
    return {{check, State::problem, "others can remove the daemon's files in /tmp and put a link there",
             "give it to root, with mode 1777"}};
  }
  return {{check, State::ok, "files in /tmp are safe from all but their owners", ""}};
}

Findings checkUdevRules(const Machine& machine) {
  const std::string check = "udev-rules";
  const std::string name = "60-dockhand.rules";
  for (const char* folder :
       {"/etc/udev/rules.d", "/run/udev/rules.d", "/usr/lib/udev/rules.d", "/lib/udev/rules.d"}) {
    const std::string file = std::string(folder) + "/" + name;
    std::error_code ignored;  // a folder that we cannot read counts as empty
    if (std::filesystem::exists(machine.root + file, ignored)) {
      return {{check, State::ok, file + " is installed", ""}};
    }
  }
  return {{check, State::warning, name + " is not installed: udev makes no nodes and announces no devices",
           "install integration/udev, or let another device manager do this"}};
}

Findings checkNodes(const Machine& machine) {
  const std::string check = "nodes";
  const std::string mark = "usb_storage_";
  DIR* const directory = ::opendir((machine.root + "/dev").c_str());
  if (directory == nullptr) {
    return {
        {check, State::problem, std::string("/dev cannot be read: ") + std::strerror(errno), "mount /dev"}};
  }
  Findings findings;
  int devices = 0;
  while (const dirent* const entry = ::readdir(directory)) {
    const std::string name = entry->d_name;
    if (name.find(mark) == std::string::npos) {
      continue;
    }
    ++devices;
    if (!machine.isBlockDevice(machine.root + "/dev/" + name)) {
      findings.push_back({check, State::problem,
                          "/dev/" + name + " is not a block device, but dockhand takes it for one",
                          "remove it, and fix the program that made it"});
    }
  }
  ::closedir(directory);
  if (findings.empty()) {
    findings.push_back({check, State::ok,
                        devices == 0 ? "/dev has no " + mark + " node: nothing is plugged in"
                                     : "all " + mark + " nodes in /dev are block devices",
                        ""});
  }
  return findings;
}

Findings checkLogFile(const Machine& machine) {
  const std::string check = "log-file";
  const std::string file = "/tmp/Dockhand.log";
  struct stat status {};
  if (::lstat((machine.root + file).c_str(), &status) != 0) {
    if (errno == ENOENT) {
      return {{check, State::ok, file + " does not exist yet; the daemon makes it before the first disk tool",
               ""}};
    }
    return {{check, State::problem, file + ": " + std::strerror(errno), "make /tmp accessible"}};
  }
  if (!S_ISREG(status.st_mode)) {
    return {{check, State::problem, file + " is not a regular file: the daemon will move it aside if it can",
             "remove it, and find out who put it there"}};
  }
  if (status.st_uid != machine.owner) {
    return {{check, State::problem,
             file + " belongs to user " + std::to_string(status.st_uid) + ": the daemon will move it aside",
             "remove it, and find out who put it there"}};
  }
  return {{check, State::ok, file + " is the daemon's", ""}};
}

}  // namespace dockhandctl::doctor
