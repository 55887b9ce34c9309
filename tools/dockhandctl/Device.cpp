#include "Device.h"

#include <algorithm>
#include <vector>

#include "Failure.h"
#include "Text.h"

namespace dockhandctl {
namespace {

using Client = UsbService::Client;
using ravel::rpc::ReturnValueWithString;

std::optional<std::string> asOptional(const ReturnValueWithString& value) {
  return value.success && !value.text.empty() ? std::optional(value.text) : std::nullopt;
}

std::string knownDevices(const std::vector<std::int16_t>& devices) {
  if (devices.empty()) {
    return "there is none";
  }
  std::string result = devices.size() == 1 ? "there is " : "there are ";
  for (const std::int16_t device : devices) {
    result += (device == devices.front() ? "" : ", ") + std::to_string(device);
  }
  return result;
}

Json orNull(const std::optional<std::string>& text) {
  return text ? Json(*text) : Json(nullptr);
}

}  // namespace

std::string nameOf(std::int16_t device) {
  return "device " + std::to_string(device);
}

std::string requireDevice(UsbService& service, std::int16_t device) {
  ReturnValueWithString kernelName = service.text(&Client::GetUsbPhysicalDevice, device);
  if (!kernelName.success) {
    // It may have been plugged in after the daemon's last scan; listing scans again.
    const auto devices = service.deviceNumbers(true);
    kernelName = service.text(&Client::GetUsbPhysicalDevice, device);
    if (!kernelName.success) {
      throw Failure(noSuchDevice, nameOf(device) + ": no such device; " + knownDevices(devices));
    }
  }
  return kernelName.text;
}

Device readDevice(UsbService& service, std::int16_t number) {
  Device device = readMountState(service, number);
  if (!device.open) {
    device.mountPoint.clear();
  }
  device.label = service.text(&Client::GetDeviceLabel, number).text;
  device.uuid = asOptional(service.text(&Client::GetDeviceUuid, number));
  device.type = typeName(service.call([&](Client& client) { return client.GetDeviceType(number); }));
  device.capacity = service.call([&](Client& client) { return client.GetDeviceCapacity(number); });
  device.usbVersion = asOptional(service.text(&Client::GetDeviceUsbVersion, number));
  return device;
}

Device readMountState(UsbService& service, std::int16_t number) {
  Device device;
  device.number = number;
  device.kernelName = requireDevice(service, number);
  device.open = service.call([&](Client& client) { return client.IsDeviceOpen(number); });
  device.mountPoint = service.text(&Client::GetUsbMountPoint, number).text;
  device.mounted = readMounted(device.kernelName, service.daemon());
  return device;
}

std::string contradiction(const Device& device) {
  const std::vector<std::string>& at = device.mounted.at;
  if (!device.open) {
    return isMounted(device.mounted) ? "not open, but mounted at " + placesText(device.mounted) + unmountFirst
                                     : "";
  }
  if (std::find(at.begin(), at.end(), canonicalPath(device.mountPoint)) != at.end()) {
    return "";
  }
  const std::string counts = "counts as open, but nothing is mounted at " + quotedList({device.mountPoint});
  const std::string close = "; close it (dockhandctl close " + std::to_string(device.number) + ")";
  if (at.empty() && isMounted(device.mounted)) {
    return "counts as open, but is mounted at " + placesText(device.mounted) + close +
           " and choose a directory below /media";
  }
  if (!at.empty()) {
    return counts + ": it is mounted at " + placesText(device.mounted) + close;
  }
  return counts + ": " +
         (device.mounted.fileSystem ? "its file system is " + printable(*device.mounted.fileSystem)
                                    : "no file system is known on it") +
         close + ", and see dockhand's log";
}

std::string diskName(const std::string& kernelName) {
  return kernelName.substr(0, kernelName.find_last_not_of("0123456789") + 1);
}

std::string typeName(std::int32_t type) {
  switch (type) {
    case 1:
      return "fixed";
    case 2:
      return "removable";
    default:
      return "unknown";
  }
}

std::string capacityText(std::int32_t capacity) {
  return capacity == 0 ? "unknown" : std::to_string(capacity) + " MiB";
}

Json toJson(const Device& device) {
  const std::string text = contradiction(device);
  return {{"device", device.number},
          {"kernelName", device.kernelName},
          {"label", device.label},
          {"uuid", orNull(device.uuid)},
          {"type", device.type},
          {"capacityMiB", device.capacity == 0 ? Json(nullptr) : Json(device.capacity)},
          {"usbVersion", orNull(device.usbVersion)},
          {"open", device.open},
          {"mountPoint", device.mountPoint.empty() ? Json(nullptr) : Json(device.mountPoint)},
          {"mountedAt", device.mounted.at},
          {"fileSystem", orNull(device.mounted.fileSystem)},
          {"contradiction", text.empty() ? Json(nullptr) : Json(text)}};
}

int complainOfContradiction(const Device& device) {
  const std::string text = contradiction(device);
  if (text.empty()) {
    return done;
  }
  complain(nameOf(device.number) + ": " + text);
  return answerIsNo;
}

}  // namespace dockhandctl
