#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

#include "Checks.h"

namespace dockhandctl::doctor {
namespace {

std::string modeText(mode_t mode) {
  char text[8];
  static_cast<void>(std::snprintf(text, sizeof(text), "%04o", mode & 07777U));
  return text;
}

std::string description(const std::string& path, const struct stat& status) {
  return path + " has mode " + modeText(status.st_mode) + ", owner " + std::to_string(status.st_uid) +
         " and group " + std::to_string(status.st_gid);
}

}  // namespace

Findings checkSocket(const Machine& machine) {
  const std::string check = "socket";
  switch (machine.connectionError) {
    case 0:
    case EAGAIN:
      return {{check, State::ok, machine.socket + " is served", ""}};
    case ENOENT:
      return {{check, State::problem, machine.socket + " does not exist", "start dockhand"}};
    case ECONNREFUSED:
      return {{check, State::problem, "nobody serves " + machine.socket,
               "start dockhand; it replaces the socket that an earlier one has left"}};
    case EACCES:
      return {{check, State::problem, machine.socket + " refuses the connection: permission denied",
               "run dockhandctl as root or as a member of the socket's group"}};
    default:
      return {{check, State::problem, machine.socket + ": " + std::strerror(machine.connectionError),
               "see dockhand's log"}};
  }
}

Findings checkSocketMode(const Machine& machine) {
  const std::string check = "socket-mode";
  struct stat status {};
  if (::lstat((machine.root + machine.socket).c_str(), &status) != 0) {
    return {{check, State::problem, machine.socket + ": " + std::strerror(errno), "start dockhand"}};
  }
  const std::string text = description(machine.socket, status);
  if (!S_ISSOCK(status.st_mode)) {
    return {{check, State::problem, machine.socket + " is not a socket", "remove it and start dockhand"}};
  }
  if (status.st_uid != machine.owner) {
    return {{check, State::problem, text, "start dockhand as root"}};
  }
  if ((status.st_mode & S_IWOTH) != 0) {
    return {{check, State::problem, text + ": everybody may wipe disks",
             "chmod 0660, the mode that dockhand gave it"}};
  }
  return {{check, State::ok, text, ""}};
}

Findings checkSocketDirectory(const Machine& machine) {
  const std::string check = "socket-directory";
  const std::string directory = std::filesystem::path(machine.socket).parent_path();
  struct stat status {};
  if (::stat((machine.root + directory).c_str(), &status) != 0) {
    return {
        {check, State::problem, directory + ": " + std::strerror(errno), "start dockhand, which makes it"}};
  }
  const std::string text = description(directory, status);
  if (!S_ISDIR(status.st_mode)) {
    return {{check, State::problem, directory + " is not a directory", "remove it and start dockhand"}};
  }
  if (status.st_uid != machine.owner || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return {{check, State::problem, text + ": others may put a service of their own in the daemon's place",
             "give it to root, with mode 0755"}};
  }
  return {{check, State::ok, text, ""}};
}

}  // namespace dockhandctl::doctor
