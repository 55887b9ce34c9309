// The kernel's list of partitions, and the names that the daemon looks up in it. A device is announced if a
// record has its name and the beginning of the list contains it exactly once.
//
// The input has these fields, separated by NUL bytes: the announced name, the names of the nodes after
// "usb_storage_", separated by slashes, and the list.

#include <thrift/transport/TTransportException.h>

#include "Fuzzing.h"

namespace {

/// True if the device's only observer is called: the call fails, because there is no media service.
bool callsObserver(const std::function<void()>& notification) {
  try {
    notification();
    return false;
  } catch (const apache::thrift::transport::TTransportException&) {
    return true;
  }
}

int timesIn(const std::string& text, const std::string& name) {
  int times = 0;
  std::size_t at = 0;
  while (!name.empty() && at + name.size() <= text.size()) {
    const bool here = text.compare(at, name.size(), name) == 0;
    times += here ? 1 : 0;
    at += here ? name.size() : 1;
  }
  return times;
}

/// The number of the first device with this kernel name; 0 without one.
std::uint32_t numberOf(const std::string& name, const TestableHandler& handler) {
  for (const auto& [number, entry] : handler.deviceMap) {
    if (entry.deviceName + (entry.partitionCount == 0 ? "" : "1") == name) {
      return number;
    }
  }
  return 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto input = fuzz::fields(fuzz::textOf(data, size), 3);
  const std::string& name = input[0];
  const std::string& list = input[2];

  FakePlatform platform;
  for (const std::string& node : fuzz::directoryEntries(input[1])) {
    platform.deviceNodes.push_back("usb_storage_" + node.substr(0, 243));
  }
  platform.files["/proc/partitions"] = list;
  TestableHandler handler(platform);
  handler.RegisterUsbAddedCallBack(3, 1);
  handler.RegisterUsbRemovedCallBack(3, 1);
  journal().clear();

  const std::uint32_t number = numberOf(name, handler);
  const bool isAnnounced = number != 0 && timesIn(list.substr(0, 1023), name) == 1;
  const auto added = [&] { handler.NotifyUsbAdded(name); };
  fuzz::require(callsObserver(added) == isAnnounced, "only a known device that is listed once is announced");
  fuzz::require(
      journal().calls() == std::vector<std::string>{"scandir /dev", "open /proc/partitions",
                                                    "read /proc/partitions 1023", "close /proc/partitions"},
      "the beginning of the list is read once");
  for (const auto& [key, entry] : handler.deviceMap) {
    const bool shouldBeMarked = isAnnounced && key == number;
    fuzz::require((entry.lastUsbOperation == Dockhand::UsbOperationAdded) == shouldBeMarked,
                  "only the announced device is marked");
  }
  fuzz::require(!callsObserver(added), "a device is announced once");

  const std::size_t devices = handler.deviceMap.size();
  const auto removed = [&] { handler.NotifyUsbRemoved(name); };
  fuzz::require(callsObserver(removed) == (number != 0), "only a known device that goes is announced");
  fuzz::require(
      handler.deviceMap.size() == devices - (number != 0 ? 1 : 0) && handler.deviceMap.count(number) == 0,
      "only the device is forgotten");
  fuzz::requireNothingOpen(platform);
  return 0;
}
