#include "CtlTest.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <stdexcept>
#include <utility>

#include "ModuleLog.h"

namespace ctltest {

World::World(std::filesystem::path root) : root_(std::move(root)) {
  setenv("DOCKHANDCTL_TEST_ROOT", root_.c_str(), 1);
  clear();
}

void World::clear() {
  std::filesystem::remove_all(root_);
  for (const char* const folder : {"dev", "run/udev/data"}) {
    std::filesystem::create_directories(root_ / folder);
  }
  mounts_.clear();
  write();
}

namespace {

std::string numberOf(const std::filesystem::path& node) {
  struct stat status {};
  if (stat(node.c_str(), &status) != 0) {
    throw std::runtime_error("no node " + node.string());
  }
  return std::to_string(major(status.st_rdev)) + ":" + std::to_string(minor(status.st_rdev));
}

std::string escaped(const std::string& target) {
  return std::regex_replace(target, std::regex(" "), "\\040");
}

}  // namespace

void World::addNode(const std::string& kernelName, const std::string& device, const std::string& fileSystem) {
  const auto node = root_ / "dev" / ("usb_storage_" + kernelName);
  std::filesystem::remove(node);
  std::filesystem::create_symlink(device, node);
  std::ofstream(root_ / "run/udev/data" / ("b" + numberOf(node)))
      << "S:disk/by-id/usb\n"
      << (fileSystem.empty() ? "" : "E:ID_FS_TYPE=" + fileSystem + "\n") << "E:ID_BUS=usb\n";
}

void World::mount(const std::string& kernelName, const std::string& target, const std::string& fileSystem) {
  mounts_.push_back({kernelName, target, fileSystem});
  write();
}

void World::unmount(const std::string& target) {
  mounts_.erase(std::remove_if(mounts_.begin(), mounts_.end(),
                               [&](const Mount& mount) { return mount.target == target; }),
                mounts_.end());
  write();
}

void World::mountForTheServiceAlone(const std::string& kernelName, const std::string& target) {
  const std::vector<Mount> those = mounts_;
  mounts_.push_back({kernelName, target, "vfat"});
  write(std::to_string(getpid()));
  mounts_ = those;
}

std::string World::procMounts() const {
  std::string result;
  for (const Mount& mount : mounts_) {
    result += "/dev/usb_storage_" + mount.kernelName + " " + escaped(mount.target) + " " + mount.fileSystem +
              " rw 0 0\n";
  }
  return result;
}

void World::write(const std::string& process) const {
  const auto folder = root_ / "proc" / process;
  std::filesystem::create_directories(folder);
  std::ofstream table(folder / "mountinfo");
  table << "20 1 0:19 / / rw - tmpfs none rw\n";
  for (const Mount& mount : mounts_) {
    const std::string source = "usb_storage_" + mount.kernelName;
    table << "30 20 " << numberOf(root_ / "dev" / source) << " / " << escaped(mount.target) << " rw - "
          << mount.fileSystem << " /dev/" << source << " rw\n";
  }
}

Service::Service() : world(sockets.path() / "root") {
  Dockhand::usbClientLog.context->setThreshold(2);
  server = std::make_unique<Dockhand::DockhandServer>(platform);
  if (std::atexit([] { std::filesystem::remove_all(service().sockets.path()); }) != 0) {
    throw std::runtime_error("the directory of the sockets would stay behind");
  }
}

Service& service() {
  static auto* const instance = new Service();
  return *instance;
}

namespace {

/// Waits for the end of a program's calls, even if the program ended before the reply: our own operation
/// waits for the handler's lock.
void finishOperations(UsbClient& connection) {
  connection->CheckForAndUpdateNewDevices();
}

}  // namespace

CtlTest::CtlTest() {
  FakePlatform& system = service().platform;
  UsbClient connection;
  finishOperations(connection);
  system.deviceNodes.clear();
  system.disks.clear();
  system.files.clear();
  system.directories.clear();
  system.umount2Error = 0;
  system.systemStatus = [](const std::string&) { return 0; };
  setMountError(0);
  world().clear();
  system.onCall = [&system](const std::string& event) {
    const std::string unmounting = "umount2 ";
    if (event.rfind(unmounting, 0) == 0 && system.umount2Error == 0) {
      world().unmount(event.substr(unmounting.size(), event.rfind(' ') - unmounting.size()));
      system.files["/proc/mounts"] = world().procMounts();
    }
  };
  // One scan may leave a record.
  connection->CheckForAndUpdateNewDevices();
  connection->CheckForAndUpdateNewDevices();
  for (int observerId = -128; observerId <= 127; ++observerId) {
    connection->DeregisterUsbAddedCallBack(static_cast<std::int8_t>(observerId), 0);
    connection->DeregisterUsbRemovedCallBack(static_cast<std::int8_t>(observerId), 0);
  }
  journal().clear();
}

CtlTest::~CtlTest() {
  UsbClient connection;
  finishOperations(connection);
  service().platform.onCall = nullptr;
}

void CtlTest::plugInStick(const std::string& label) {
  FakePlatform& system = platform();
  system.deviceNodes = {"usb_storage_sda", "usb_storage_sda1"};
  world().addNode("sda", "/dev/full");
  world().addNode("sda1", "/dev/null", "vfat");
  world().addNode("sda2", "/dev/zero", "ext4");
  FakePlatform::Disk partition;
  partition.values = {{"LABEL", label}, {"UUID", "4F2A-1B3C"}, {"TYPE", "vfat"}};
  system.disks["/dev/usb_storage_sda1"] = partition;
  FakePlatform::Disk whole;
  whole.size = 16008609792;
  system.disks["/dev/usb_storage_sda"] = whole;
  system.files["/sys/block/sda/removable"] = "1\n";
  system.files["/tmp/sda_bcdUSB.txt"] = "2.10\n";
  system.files["/proc/partitions"] = "major minor  #blocks  name\n\n   8        1   15633408 sda1\n";
}

void CtlTest::setMountError(int error) {
  platform().mountError = [error](const FakePlatform::Mount& mount) {
    if (error == 0) {
      world().mount(mount.source.substr(std::string("/dev/usb_storage_").size()), mount.target,
                    mount.fileSystemType);
      platform().files["/proc/mounts"] = world().procMounts();
    }
    return error;
  };
}

std::string CtlTest::socketOf(int number) {
  return service().sockets.path() / (std::to_string(number) + ".sock");
}

}  // namespace ctltest
