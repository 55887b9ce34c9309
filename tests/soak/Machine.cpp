#include "Machine.h"

#include <sys/mount.h>

#include <algorithm>
#include <cerrno>
#include <sstream>

namespace soak {

namespace {

constexpr const char* nodeDirectory = "/dev/";

bool isReadOnly(unsigned long flags) {
  return (flags & MS_RDONLY) != 0;
}

int exitStatus(int code) {
  return code << 8;
}

std::string removableFile(const std::string& name) {
  return "/sys/block/" + name + "/removable";
}

/// The words of a command line up to its first redirection of standard output.
std::vector<std::string> wordsOf(const std::string& command) {
  std::istringstream text(command.substr(0, command.find(" 1>")));
  std::vector<std::string> words;
  for (std::string word; text >> word;) {
    words.push_back(word);
  }
  return words;
}

}  // namespace

void Machine::plug(const Stick& stick) {
  const std::string disk = "/dev/usb_storage_" + stick.name;
  if (stick.partitioned) {
    disks_[disk] = Disk();
    disks_[disk].bytes = stick.disk.bytes + (1 << 20);
  }
  disks_[stick.node()] = stick.disk;
  files_[removableFile(stick.name)] = stick.removable ? "1\n" : "0\n";
}

void Machine::unplug(const Stick& stick) {
  disks_.erase("/dev/usb_storage_" + stick.name);
  disks_.erase(stick.node());
  files_.erase(removableFile(stick.name));
}

std::vector<std::string> Machine::nodes() const {
  std::vector<std::string> names;
  for (const auto& [path, disk] : disks_) {
    names.push_back(path.substr(std::string(nodeDirectory).size()));
  }
  return names;
}

const Disk* Machine::diskAt(const std::string& node) const {
  const auto found = disks_.find(node);
  return found != disks_.end() ? &found->second : nullptr;
}

int Machine::mount(const std::string& source, const std::string& target, const std::string& type,
                   unsigned long flags, const std::string& options) {
  if (!exists(target)) {
    return ENOENT;
  }
  if (missingFileSystems.count(type) != 0) {
    return ENODEV;
  }
  const auto disk = disks_.find(source);
  if (disk == disks_.end()) {
    return ENOENT;
  }
  const auto earlier = std::find_if(mounts_.begin(), mounts_.end(),
                                    [&](const Mount& candidate) { return candidate.source == source; });
  if (earlier != mounts_.end()) {
    // A disk has one file system with one set of flags, and is not mounted on top of itself.
    const Mount* const there = mountOf(target);
    if (earlier->type != type || isReadOnly(earlier->flags) != isReadOnly(flags) ||
        (there != nullptr && there->source == source)) {
      return EBUSY;
    }
  } else if (disk->second.mountsAs != type) {
    return EINVAL;
  } else if (disk->second.writeProtected && !isReadOnly(flags)) {
    return EACCES;
  }
  mounts_.push_back({source, target, type, flags, options, disk->second});
  return 0;
}

int Machine::unmount(const std::string& target) {
  const auto last = std::find_if(mounts_.rbegin(), mounts_.rend(),
                                 [&](const Mount& mount) { return mount.target == target; });
  if (last == mounts_.rend()) {
    return exists(target) ? EINVAL : ENOENT;
  }
  mounts_.erase(std::next(last).base());
  return 0;
}

int Machine::makeDirectory(const std::string& path) {
  if (path.rfind("/media/", 0) != 0) {
    return ENOENT;
  }
  return directories_.insert(path).second ? 0 : EEXIST;
}

int Machine::removeDirectory(const std::string& path) {
  if (!exists(path)) {
    return ENOENT;
  }
  if (mountOf(path) != nullptr) {
    return EBUSY;
  }
  directories_.erase(path);
  return 0;
}

const Machine::Mount* Machine::mountOf(const std::string& path) const {
  const auto last = std::find_if(mounts_.rbegin(), mounts_.rend(), [&](const Mount& mount) {
    return path == mount.target || path.rfind(mount.target + "/", 0) == 0;
  });
  return last != mounts_.rend() ? &*last : nullptr;
}

bool Machine::isMounted(const std::string& node) const {
  return std::any_of(mounts_.begin(), mounts_.end(),
                     [&](const Mount& mount) { return mount.source == node; });
}

std::optional<std::vector<std::string>> Machine::list(const std::string& path) const {
  const std::string directory = path.back() == '/' ? path.substr(0, path.size() - 1) : path;
  if (const Mount* const mount = mountOf(directory)) {
    const std::string inside =
        directory == mount->target ? std::string() : directory.substr(mount->target.size() + 1);
    const auto found = mount->disk.files.find(inside);
    return found != mount->disk.files.end() ? std::optional(found->second) : std::nullopt;
  }
  return exists(directory) ? std::optional(std::vector<std::string>()) : std::nullopt;
}

std::optional<std::string> Machine::read(const std::string& path) const {
  if (path == "/proc/mounts") {
    return mountTable();
  }
  if (path == "/proc/partitions") {
    return partitions();
  }
  const auto found = files_.find(path);
  return found != files_.end() ? std::optional(found->second) : std::nullopt;
}

std::string Machine::mountTable() const {
  std::string table = tableHead;
  for (const Mount& mount : mounts_) {
    std::string target;
    for (const char c : mount.target) {
      target += c == ' ' ? "\\040" : std::string(1, c);
    }
    table += mount.source + ' ' + target + ' ' + mount.type + (isReadOnly(mount.flags) ? " ro," : " rw,") +
             mount.disk.tableOptions + " 0 0\n";
  }
  return table;
}

std::string Machine::partitions() const {
  std::string text = "major minor  #blocks  name\n\n";
  for (const auto& [path, disk] : disks_) {
    text += "   8        0      16384 " + path.substr(std::string("/dev/usb_storage_").size()) + "\n";
  }
  return text;
}

int Machine::shell(const std::string& command) {
  const std::vector<std::string> words = wordsOf(command);
  const std::string& tool = words.at(0);
  if (tool == "umount") {
    const auto last = std::find_if(mounts_.rbegin(), mounts_.rend(),
                                   [&](const Mount& mount) { return mount.source == words.at(2); });
    if (last == mounts_.rend()) {
      return exitStatus(32);
    }
    mounts_.erase(std::next(last).base());
    return 0;
  }
  if (tool == "xfs_repair") {
    const Disk* const disk = diskAt(words.back());
    return disk != nullptr && disk->type == "xfs" && !isMounted(words.back()) ? 0 : exitStatus(1);
  }
  if (tool == "readUsbVersion.sh") {
    const bool known = files_.count(removableFile(words.at(1))) != 0;
    files_[words.at(3)] = known ? "2.00\n" : "";
    return known ? 0 : exitStatus(1);
  }
  if (tool == "rm") {
    return files_.erase(words.at(1)) != 0 ? 0 : exitStatus(1);
  }
  return tool == "logger" ? 0 : exitStatus(127);
}

std::string mountLine(const std::string& source, const std::string& target, const std::string& type) {
  return source + " is mounted at " + target + " as " + type + "\n";
}

std::string directoryLine(const std::string& path) {
  return "directory " + path + "\n";
}

std::string underMedia(const Machine& machine) {
  std::string text;
  for (const Machine::Mount& mount : machine.mounts()) {
    text += mountLine(mount.source, mount.target, mount.type);
  }
  for (const std::string& path : machine.directories()) {
    text += directoryLine(path);
  }
  return text;
}

}  // namespace soak
