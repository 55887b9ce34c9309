#include "CtlTest.h"

#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "ModuleLog.h"

namespace ctltest {

Service::Service() {
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

Connection::Connection()
    : socket_(std::make_shared<ravel::rpc::TUnixSocket>("localhost", 9020)),
      client_(std::make_shared<apache::thrift::protocol::TBinaryProtocol>(
          std::make_shared<apache::thrift::transport::TBufferedTransport>(socket_))) {
  socket_->open();
}

namespace {

/// What a program has asked the service is over, also when the program was ended before the answer: an
/// operation of our own, under the handler's lock, comes after it.
void finishOperations(Connection& connection) {
  connection->CheckForAndUpdateNewDevices();
}

}  // namespace

CtlTest::CtlTest() {
  FakePlatform& system = service().platform;
  Connection connection;
  finishOperations(connection);
  system.deviceNodes.clear();
  system.disks.clear();
  system.files.clear();
  system.directories.clear();
  system.umount2Error = 0;
  system.systemStatus = [](const std::string&) { return 0; };
  system.mountError = [](const FakePlatform::Mount&) { return 0; };
  // One scan may leave a record behind.
  connection->CheckForAndUpdateNewDevices();
  connection->CheckForAndUpdateNewDevices();
  for (int observerId = -128; observerId <= 127; ++observerId) {
    connection->DeregisterUsbAddedCallBack(static_cast<std::int8_t>(observerId), 0);
    connection->DeregisterUsbRemovedCallBack(static_cast<std::int8_t>(observerId), 0);
  }
  journal().clear();
}

CtlTest::~CtlTest() {
  Connection connection;
  finishOperations(connection);
  service().platform.onCall = nullptr;
}

void CtlTest::plugInStick(const std::string& label) {
  FakePlatform& system = platform();
  system.deviceNodes = {"usb_storage_sda", "usb_storage_sda1"};
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

std::string CtlTest::socketOf(int number) {
  return service().sockets.path() / (std::to_string(number) + ".sock");
}

}  // namespace ctltest
