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
#include "TUnixSocket.h"
#include "usb_rpc_gen_.h"

namespace ctltest {

/// The kernel's and udev's side of a fake system, for the service and for dockhandctl: a mount table, nodes
/// and udev's database, below a folder that stands for /.
class World {
 public:
  explicit World(std::filesystem::path root);

  /// Nothing is plugged in or mounted.
  void clear();
  /// A node with the number of the character device behind `device`; a file system on it that udev knows.
  void addNode(const std::string& kernelName, const std::string& device, const std::string& fileSystem = {});
  void mount(const std::string& kernelName, const std::string& target,
             const std::string& fileSystem = "vfat");
  void unmount(const std::string& target);
  /// From now on the service, whose process we are, has a mount table of its own, with this mount beside the
  /// others.
  void mountForTheServiceAlone(const std::string& kernelName, const std::string& target);
  /// As the service reads it.
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

/// The service over a fake system, in this process. Its threads never end, so there is one for the whole
/// program, and it is never destroyed.
struct Service {
  const SocketDirectory sockets;
  World world;
  FakePlatform platform;
  std::unique_ptr<Dockhand::DockhandServer> server;

  Service();
};

Service& service();

/// One connection to the service.
class Connection {
 public:
  Connection();
  ravel::rpc::usb_rpc_gen_Client* operator->() { return &client_; }

 private:
  std::shared_ptr<ravel::rpc::TUnixSocket> socket_;
  ravel::rpc::usb_rpc_gen_Client client_;
};

/// A test that runs the program against the service, which knows no device at its begin.
class CtlTest : public ::testing::Test {
 protected:
  CtlTest();
  ~CtlTest() override;

  /// A stick called sda1 with a label, a UUID and a FAT file system, of 15267 MiB, and a second partition,
  /// sda2.
  static void plugInStick(const std::string& label = "HOLIDAY");
  static FakePlatform& platform() { return service().platform; }
  static World& world() { return service().world; }
  /// From now on mounts succeed, or fail with this error.
  static void setMountError(int error);
  /// The path of a service's socket.
  static std::string socketOf(int number);
};

/// The exit code, standard output and standard error of an outcome.
MATCHER_P3(Ends, exitCode, out, err, "") {
  return arg.exitCode == exitCode && ::testing::Matches(out)(arg.out) && ::testing::Matches(err)(arg.err);
}

}  // namespace ctltest

#endif  // TESTS_CTL_CTLTEST_H
