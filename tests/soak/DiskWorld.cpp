#include "DiskWorld.h"

#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "../system/World.h"
#include "ExpectedMounts.h"

namespace soak {

namespace fs = std::filesystem;

namespace {

constexpr std::int64_t mebibyte = 1 << 20;
const char* const uuidBeginning = "7b5f1b2e-9d3a-4c55-8a52-3f1d6c0e4a";

bool isUnderMedia(const std::string& target) {
  return target.rfind("/media/", 0) == 0;
}

/// The errno of a test mount, and its options in the mount table.
struct Trial {
  int error = 0;
  std::string tableOptions;
};

Trial tryMount(const std::string& node, const std::string& type, unsigned long flags, const char* options) {
  const std::string target = "/tmp/trial";
  mkdir(target.c_str(), 0755);
  if (mount(node.c_str(), target.c_str(), type.c_str(), flags, options) != 0) {
    return {errno, ""};
  }
  const std::string shown = systest::mountsAt(target).at(0).options;
  umount(target.c_str());
  return {0, shown.substr(shown.find(',') + 1)};
}

}  // namespace

DiskWorld::DiskWorld() {
  systest::clearWorld();
  systest::makeTool("readUsbVersion.sh", "test -e /sys/block/$1/removable && echo 2.00\n");
  // The private root has no system log.
  systest::makeTool("logger", "cat >/dev/null\n");
  setenv("PATH", ("/tmp/bin:" + std::string(std::getenv("PATH"))).c_str(), 1);
  // Try each file system of the daemon: ENODEV shows that this kernel lacks it.
  const Stick blank = makeStick({"sdz", "", "", false});
  plug(blank);
  for (const std::string& type : testsupport::expectedFileSystems()) {
    if (tryMount(blank.node(), type, MS_RDONLY, "").error == ENODEV) {
      missing_.insert(type);
    }
  }
  unplug(blank);
}

DiskWorld::~DiskWorld() = default;

Stick DiskWorld::makeStick(const Kind& kind) {
  Stick stick;
  stick.name = kind.name;
  stick.partitioned = kind.partitioned;
  stick.disk.type = kind.type;
  stick.disk.label = kind.label;
  stick.disk.uuid = kind.type.empty() ? "" : uuidBeginning + std::to_string(10 + sticks_.size());

  systest::StickOptions options;
  options.kernelName = kind.name;
  options.partitioned = kind.partitioned;
  options.bytes = static_cast<std::uint64_t>((kind.type == "xfs" ? 320 : 8) * mebibyte);
  options.mkfs.clear();
  if (kind.type == "xfs") {
    options.mkfs = {"mkfs.xfs", "-q", "-L", kind.label, "-m", "uuid=" + stick.disk.uuid};
    stick.disk.files = {{"", {}}};
  } else if (!kind.type.empty()) {
    options.mkfs = {"mkfs." + kind.type, "-q", "-F", "-L", kind.label, "-U", stick.disk.uuid};
    options.files = {{"readme.TXT", "read me"}, {"music/song.mp3", "la la la"}};
    stick.disk.files = {{"", {"readme.TXT", "music"}}, {"music", {"song.mp3"}}};
  }
  auto& made = sticks_[kind.name];
  made = std::make_unique<systest::Stick>(options);
  stick.disk.bytes = static_cast<std::int64_t>(options.bytes) - (kind.partitioned ? mebibyte : 0);

  if (!kind.type.empty()) {
    // Mount it as the daemon does.
    const bool isXfs = kind.type == "xfs";
    const Trial trial =
        tryMount(stick.node(), kind.type, isXfs ? MS_NOSUID | MS_NOEXEC | MS_NOATIME : MS_NOSUID,
                 isXfs ? "prjquota" : "");
    stick.disk.mountsAs = trial.error == 0 ? kind.type : "";
    stick.disk.tableOptions = trial.tableOptions;
  }
  made->unplug();
  return stick;
}

void DiskWorld::plug(const Stick& stick) {
  sticks_.at(stick.name)->unplug();
  sticks_.at(stick.name)->plug();
  systest::setRemovable(stick.name, stick.removable ? "1\n" : "0\n");
  kernelNames_.insert(stick.name);
  kernelNames_.insert(stick.announcedName());
  writePartitions();
}

void DiskWorld::unplug(const Stick& stick) {
  sticks_.at(stick.name)->unplug();
  fs::remove_all("/sys/block/" + stick.name);
  kernelNames_.erase(stick.name);
  kernelNames_.erase(stick.announcedName());
  writePartitions();
}

void DiskWorld::writePartitions() const {
  systest::setPartitions({kernelNames_.begin(), kernelNames_.end()});
}

void DiskWorld::fillMountTable(std::size_t size) {
  for (; otherMounts_ > 0; --otherMounts_) {
    umount(("/tmp/other" + std::to_string(otherMounts_)).c_str());
  }
  while (tableHead().size() < size) {
    const std::string target = "/tmp/other" + std::to_string(++otherMounts_);
    mkdir(target.c_str(), 0755);
    if (mount("none", target.c_str(), "tmpfs", 0, "") != 0) {
      throw std::runtime_error(target + ": " + std::strerror(errno));
    }
  }
}

std::string DiskWorld::tableHead() {
  std::ifstream table("/proc/mounts");
  std::string head;
  for (std::string line; std::getline(table, line);) {
    if (!isUnderMedia(line.substr(line.find(' ') + 1))) {
      head += line + '\n';
    }
  }
  return head;
}

std::string DiskWorld::underMedia() {
  std::string text;
  std::ifstream table("/proc/mounts");
  for (std::string line; std::getline(table, line);) {
    std::istringstream fields(line);
    std::string source;
    std::string target;
    std::string type;
    fields >> source >> target >> type;
    if (isUnderMedia(target)) {
      for (auto at = target.find("\\040"); at != std::string::npos; at = target.find("\\040", at)) {
        target.replace(at, 4, " ");
      }
      text += mountLine(source, target, type);
    }
  }
  for (const std::string& name : systest::namesIn("/media")) {
    text += directoryLine("/media/" + name);
  }
  return text;
}

}  // namespace soak
