#ifndef TESTS_CTL_CTLTEST_H
#define TESTS_CTL_CTLTEST_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "DockhandServer.h"
#include "FakePlatform.h"
#include "Journal.h"
#include "Program.h"
#include "SocketDirectory.h"
#include "UsbClient.h"
#include "usb_rpc_gen_.h"

namespace ctltest {

/// The kernel's and udev's files of a fake system, for the service and dockhandctl: a mount table, nodes and
/// udev's database. A folder takes the place of /.
class World {
 public:
  explicit World(std::filesystem::path root);

  /// Removes all disks and mounts.
  void clear();
  /// Adds a node with the number of the character device `device`. udev knows its file system.
  void addNode(const std::string& kernelName, const std::string& device, const std::string& fileSystem = {});
  void mount(const std::string& kernelName, const std::string& target,
             const std::string& fileSystem = "vfat");
  void unmount(const std::string& target);
  /// Gives the service, which runs in this process, its own mount table with this mount added.
  void mountForTheServiceAlone(const std::string& kernelName, const std::string& target);
  /// Returns the mount table as the service reads it.
  std::string procMounts() const;

 private:
  struct Mount {
    std::string kernelName;
    std::string target;
    std::string fileSystem;
  };

  void write(const std::string& process = "self") const;

  const std::filesystem::path root_;
  std::vector<Mount> mounts_;
};

/// The service over a fake system, in this process. Its threads never end, so all tests share one that is
/// never destroyed.
struct Service {
  const SocketDirectory sockets;
  World world;
  FakePlatform platform;
  std::unique_ptr<Dockhand::DockhandServer> server;

  Service();
};

Service& service();

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;
using testsupport::UsbClient;

/// A test that runs the program against the service. At its start no device is known.
class CtlTest : public ::testing::Test {
 protected:
  CtlTest();
  ~CtlTest() override;

  /// Plugs in a stick of 15267 MiB: sda1 with a label, a UUID and a FAT file system, and a second partition,
  /// sda2.
  static void plugInStick(const std::string& label = "HOLIDAY");
  static FakePlatform& platform() { return service().platform; }
  static World& world() { return service().world; }
  /// Makes mounts fail with this errno; 0 makes them succeed.
  static void setMountError(int error);
  /// Returns the path of a service's socket.
  static std::string socketOf(int number);
};

/// Matches the exit code, standard output and standard error of an outcome.
MATCHER_P3(Ends, exitCode, out, err, "") {
  return arg.exitCode == exitCode && ::testing::Matches(out)(arg.out) && ::testing::Matches(err)(arg.err);
}

}  // namespace ctltest

#endif  // TESTS_CTL_CTLTEST_H
