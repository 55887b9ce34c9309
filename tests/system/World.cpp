#include "World.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include "ArgumentVector.h"

namespace systest {

namespace fs = std::filesystem;

std::string reasonForNoWorld() {
  const char* reason = std::getenv("PRIVATE_ROOT_MISSING");
  return reason != nullptr ? reason : "";
}

void clearWorld() {
  for (const auto& entry : fs::directory_iterator("/media")) {
    // Includes the mounts below it.
    while (umount2(entry.path().c_str(), MNT_DETACH | UMOUNT_NOFOLLOW) == 0) {
    }
    fs::remove_all(entry.path());
  }
  for (const auto& entry : fs::directory_iterator("/dev")) {
    if (entry.path().filename().string().find("usb_storage_") != std::string::npos) {
      fs::remove_all(entry.path());
    }
  }
  for (const auto& entry : fs::directory_iterator("/sys/block")) {
    fs::remove_all(entry.path());
  }
  for (const char* path : {"/tmp/bin", "/tmp/ran"}) {
    fs::remove_all(path);
  }
  fs::create_directory("/tmp/bin");
  setPartitions({});
}

void setPartitions(const std::vector<std::string>& kernelNames) {
  std::string table = "major minor  #blocks  name\n\n";
  for (const std::string& name : kernelNames) {
    table += "   8        0      16384 " + name + "\n";
  }
  // Rewrite the file, because this inode is bind-mounted over /proc/partitions.
  writeFile("/tmp/partitions", table);
}

void setRemovable(const std::string& kernelName, const std::string& text) {
  fs::create_directories("/sys/block/" + kernelName);
  writeFile("/sys/block/" + kernelName + "/removable", text);
}

std::vector<Mount> mountsAt(const std::string& target) {
  std::ifstream table("/proc/mounts");
  std::vector<Mount> found;
  std::string line;
  while (std::getline(table, line)) {
    std::istringstream fields(line);
    Mount mount;
    std::string where;
    fields >> mount.source >> where >> mount.type >> mount.options;
    if (where == target) {
      found.push_back(mount);
    }
  }
  return found;
}

bool kernelKnowsFileSystem(const std::string& type) {
  std::ifstream table("/proc/filesystems");
  std::string line;
  while (std::getline(table, line)) {
    if (line.substr(line.find('\t') + 1) == type) {
      return true;
    }
  }
  return false;
}

std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    throw std::runtime_error(path + ": " + std::strerror(errno));
  }
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void writeFile(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << text << std::flush;
  if (!file) {
    throw std::runtime_error(path + ": " + std::strerror(errno));
  }
}

std::string readLink(const std::string& path) {
  return fs::read_symlink(path).string();
}

std::vector<std::string> namesIn(const std::string& directory) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(directory)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

void makeTool(const std::string& name, const std::string& body) {
  writeFile("/tmp/bin/" + name, "#!/bin/sh\n" + body);
  fs::permissions("/tmp/bin/" + name, fs::perms::owner_all);
}

std::string run(std::vector<std::string> command) {
  const std::vector<char*> words = argumentVector(command);
  std::array<int, 2> output{};
  if (pipe2(output.data(), O_CLOEXEC) != 0) {
    throw std::runtime_error(std::string("pipe2: ") + std::strerror(errno));
  }
  const pid_t child = fork();
  if (child == 0) {
    dup2(output[1], STDOUT_FILENO);
    dup2(output[1], STDERR_FILENO);
    execvp(words[0], words.data());
    _exit(127);
  }
  close(output[1]);
  std::string text;
  std::array<char, 4096> block;
  ssize_t size = 0;
  while ((size = read(output[0], block.data(), block.size())) > 0) {
    text.append(block.data(), static_cast<std::size_t>(size));
  }
  close(output[0]);
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child || status != 0) {
    throw std::runtime_error(command[0] + " failed with status " + std::to_string(status) + ": " + text);
  }
  return text;
}

}  // namespace systest
