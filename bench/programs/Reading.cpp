// Listing the devices, and reading the properties of one.

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "Bare.h"
#include "Bus.h"
#include "Commands.h"
#include "Stub.h"

namespace bench {

namespace {

constexpr const char* block = "org.freedesktop.UDisks2.Block";
constexpr const char* filesystem = "org.freedesktop.UDisks2.Filesystem";

}  // namespace

void list(const Arguments& arguments) {
  Stub stub;
  std::vector<std::int16_t> devices;
  reportMedian(sample(number(arguments.at(0)), [&] { stub->GetListOfInsertedDevices(devices, false); }));
  report("devices", static_cast<double>(devices.size()));
}

void peerList(const Arguments& arguments) {
  Bus bus;
  std::size_t devices = 0;
  reportMedian(sample(number(arguments.at(0)), [&] { devices = bus.countBlockDevices(); }));
  report("devices", static_cast<double>(devices));
}

void bareScan(const Arguments& arguments) {
  int nodes = 0;
  reportMedian(sample(number(arguments.at(0)), [&] { nodes = scanDev(); }));
  report("devices", nodes);
}

void answers(const Arguments& arguments) {
  const auto device = static_cast<std::int16_t>(number(arguments.at(0)));
  Stub stub;
  ravel::rpc::ReturnValueWithString label;
  ravel::rpc::ReturnValueWithString uuid;
  ravel::rpc::ReturnValueWithString mountPoint;
  ravel::rpc::ReturnValueWithString name;
  std::int32_t type = 0;
  std::int32_t capacity = 0;
  reportMedian(sample(number(arguments.at(1)), [&] {
    stub->GetDeviceLabel(label, device);
    stub->GetDeviceUuid(uuid, device);
    type = stub->GetDeviceType(device);
    capacity = stub->GetDeviceCapacity(device);
    stub->GetUsbMountPoint(mountPoint, device);
    stub->GetUsbPhysicalDevice(name, device);
  }));
  if (!label.success || !uuid.success || type == 0 || capacity == 0 || mountPoint.text.empty() ||
      !name.success) {
    throw std::runtime_error("a query about the device failed or has an empty reply");
  }
}

void usbVersion(const Arguments& arguments) {
  Stub stub;
  ravel::rpc::ReturnValueWithString version;
  stub->GetDeviceUsbVersion(version, static_cast<std::int16_t>(number(arguments.at(0))));
}

void peerAnswers(const Arguments& arguments) {
  const std::string& object = arguments.at(0);
  Bus bus;
  reportMedian(sample(number(arguments.at(1)), [&] {
    bus.readProperty(object, block, "IdLabel");
    bus.readProperty(object, block, "IdUUID");
    bus.readProperty(object, block, "HintSystem");
    bus.readProperty(object, block, "Size");
    bus.readProperty(object, filesystem, "MountPoints");
    bus.readProperty(object, block, "Device");
  }));
}

void peerAnswersTogether(const Arguments& arguments) {
  const std::string& object = arguments.at(0);
  Bus bus;
  reportMedian(sample(number(arguments.at(1)), [&] {
    bus.readProperties(object, block);
    bus.readProperties(object, filesystem);
  }));
}

void bareProbe(const Arguments& arguments) {
  std::string label;
  reportMedian(sample(number(arguments.at(1)), [&] { label = probe(arguments.at(0), "LABEL"); }));
  if (label.empty()) {
    throw std::runtime_error("no label on " + arguments.at(0));
  }
}

}  // namespace bench
