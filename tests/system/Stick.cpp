#include "Stick.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "World.h"

namespace systest {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void throwErrno(const std::string& what) {
  throw std::runtime_error(what + ": " + std::strerror(errno));
}

void makeNode(const std::string& path, dev_t deviceNumber) {
  if (mknod(path.c_str(), S_IFBLK | 0660, deviceNumber) != 0) {
    throwErrno(path);
  }
}

dev_t deviceNumberOf(int loopNumber) {
  const std::string text = readFile("/sys/class/block/loop" + std::to_string(loopNumber) + "/dev");
  const auto colon = text.find(':');
  return makedev(static_cast<unsigned>(std::stoul(text.substr(0, colon))),
                 static_cast<unsigned>(std::stoul(text.substr(colon + 1))));
}

}  // namespace

LoopDevice::LoopDevice(const std::string& image, std::uint64_t offset, std::uint64_t size, bool readOnly,
                       std::uint32_t sectorSize) {
  const int imageFile = open(image.c_str(), (readOnly ? O_RDONLY : O_RDWR) | O_CLOEXEC);
  const int control = open("/dev/loop-control", O_RDWR | O_CLOEXEC);
  if (imageFile < 0 || control < 0) {
    throwErrno("loop device for " + image);
  }
  loop_config config{};
  config.fd = static_cast<__u32>(imageFile);
  config.block_size = sectorSize;
  config.info.lo_offset = offset;
  config.info.lo_sizelimit = size;
  config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
  if (offset == 0) {
    // Without this flag the kernel refuses to re-read the partition table of a disk, and fdisk fails.
    config.info.lo_flags |= LO_FLAGS_PARTSCAN;
  }
  if (readOnly) {
    config.info.lo_flags |= LO_FLAGS_READ_ONLY;
  }
  // Other processes take loop devices too: a free one may be busy by now.
  int error = EBUSY;
  while (error == EBUSY) {
    const int number = ioctl(control, LOOP_CTL_GET_FREE);
    if (number < 0) {
      error = errno;
      break;
    }
    deviceNumber_ = deviceNumberOf(number);
    const std::string node = "/dev/loop" + std::to_string(number);
    unlink(node.c_str());
    makeNode(node, deviceNumber_);
    descriptor_ = open(node.c_str(), O_RDWR | O_CLOEXEC);
    error = descriptor_ >= 0 && ioctl(descriptor_, LOOP_CONFIGURE, &config) == 0 ? 0 : errno;
    if (error != 0 && descriptor_ >= 0) {
      close(descriptor_);
    }
  }
  close(control);
  close(imageFile);
  if (error != 0) {
    errno = error;
    throwErrno("loop device for " + image);
  }
}

LoopDevice::~LoopDevice() {
  close(descriptor_);
}

Stick::Stick(const StickOptions& options)
    : options_(options), image_("/tmp/stick_" + options.kernelName + ".img") {
  fs::remove(image_);
  if (options_.copyOf.empty()) {
    writeFile(image_, "");
    fs::resize_file(image_, options_.bytes);
    if (options_.partitioned) {
      writePartitionTable();
    }
  } else {
    run({"cp", "--sparse=always", options_.copyOf, image_});
    options_.bytes = fs::file_size(image_);
    options_.mkfs.clear();
  }
  disk_.emplace(image_, 0, 0, false);
  if (options_.partitioned) {
    partition_.emplace(image_, partitionOffset, options_.bytes - partitionOffset, false);
  }
  plug();
  makeFileSystem();
  if (options_.readOnly) {
    unplug();
    partition_.reset();
    disk_.reset();
    disk_.emplace(image_, 0, 0, true);
    plug();
  }
}

Stick::~Stick() {
  unplug();
  unlink(image_.c_str());
}

void Stick::plug() {
  makeNode(diskNode(), disk_->deviceNumber());
  if (partition_) {
    makeNode(node(), partition_->deviceNumber());
  }
}

void Stick::unplug() {
  unlink(diskNode().c_str());
  unlink(node().c_str());
}

std::string Stick::node() const {
  return "/dev/usb_storage_" + announcedName();
}

std::string Stick::diskNode() const {
  return "/dev/usb_storage_" + options_.kernelName;
}

std::string Stick::announcedName() const {
  return options_.partitioned ? options_.kernelName + "1" : options_.kernelName;
}

void Stick::writePartitionTable() const {
  run({"/bin/sh", "-c", "echo 2048,,83 | sfdisk --quiet --no-reread --no-tell-kernel " + image_});
}

void Stick::makeFileSystem() const {
  if (options_.mkfs.empty()) {
    return;
  }
  std::vector<std::string> command = options_.mkfs;
  const std::string content = image_ + ".content";
  if (!options_.files.empty()) {
    for (const auto& [path, text] : options_.files) {
      const fs::path file = fs::path(content) / path;
      fs::create_directories(file.parent_path());
      writeFile(file.string(), text);
    }
    command.insert(command.end(), {"-d", content});
  }
  command.push_back(node());
  run(command);
  fs::remove_all(content);
}

StickOptions copyOf(const std::string& image, const std::string& kernelName) {
  StickOptions options;
  options.kernelName = kernelName;
  options.copyOf = image;
  return options;
}

std::string recordingImage(const std::map<std::string, std::string>& files) {
  const std::string image = "/tmp/recording.img";
  writeFile(image, "");
  fs::resize_file(image, enoughForXfs);
  std::string proto = "/nowhere\n0 0\nd--755 0 0\n";
  for (const auto& [name, text] : files) {
    writeFile("/tmp/" + name, text);
    proto += name + " ---644 0 0 /tmp/" + name + "\n";
  }
  writeFile("/tmp/proto", proto + "$\n");
  run({"mkfs.xfs", "-q", "-p", "/tmp/proto", "-L", "PVR_DISK", image});
  return image;
}

std::uint64_t superblockValue(const std::string& image, const std::string& field) {
  const std::string answer = run({"xfs_db", "-r", "-c", "sb 0", "-c", "print " + field, image});
  return std::stoull(answer.substr(answer.find('=') + 1));
}

void overwrite(const std::string& image, std::uint64_t offset, const std::string& bytes) {
  // Opened for reading too, so that opening does not truncate the file.
  std::fstream file(image, std::ios::in | std::ios::out | std::ios::binary);
  file.seekp(static_cast<std::streamoff>(offset));
  if (!file.write(bytes.data(), static_cast<std::streamsize>(bytes.size())).flush()) {
    throwErrno(image);
  }
}

void lookInto(const Stick& stick, const std::function<void()>& action) {
  mkdir("/media/look", 0755);
  if (mount(stick.node().c_str(), "/media/look", "xfs", MS_RDONLY, "") != 0) {
    throwErrno("mount of " + stick.node());
  }
  action();
  umount("/media/look");
  rmdir("/media/look");
}

}  // namespace systest
