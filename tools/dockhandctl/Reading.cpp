#include <algorithm>
#include <cstdint>
#include <iostream>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Commands.h"
#include "Device.h"
#include "DirectoryBounds.h"
#include "Failure.h"
#include "Json.h"
#include "Mounts.h"
#include "Text.h"
#include "UsbService.h"

namespace dockhandctl {
namespace {

using Client = UsbService::Client;

struct ListedDevice {
  Device device;
  bool hidden = false;
};

std::vector<ListedDevice> readDevices(const Settings& settings, bool includeHidden) {
  UsbService service(settings.timeout);
  const auto visible = service.deviceNumbers(false);
  const std::set<std::int16_t> visibleOnes(visible.begin(), visible.end());
  std::vector<ListedDevice> result;
  for (const std::int16_t number : includeHidden ? service.deviceNumbers(true) : visible) {
    try {
      result.push_back({readDevice(service, number), visibleOnes.count(number) == 0});
    } catch (const Failure& failure) {
      // If one is pulled out meanwhile, still show the others.
      if (failure.exitCode() != noSuchDevice) {
        throw;
      }
    }
  }
  return result;
}

/// Like ask(), but throws for an unknown device first.
template <class Questions>
auto askAbout(const Settings& settings, std::int16_t device, Questions&& questions) {
  return ask(settings.timeout, [&](UsbService& service) {
    requireDevice(service, device);
    return std::forward<Questions>(questions)(service);
  });
}

/// Prints the one value of a command. A null value counts as "no", with the reason on standard error.
int printValue(const Settings& settings, std::int16_t device, const char* key, const Json& value,
               const std::string& text, const std::string& reasonForNone) {
  if (settings.json) {
    std::cout << toText({{"device", device}, {key, value}}) << '\n';
  } else if (!value.is_null()) {
    std::cout << printable(text) << '\n';
  }
  if (value.is_null()) {
    complain(nameOf(device) + ": " + reasonForNone);
    return answerIsNo;
  }
  return done;
}

int printText(const Settings& settings, std::int16_t device, const char* key, const std::string& text,
              const std::string& reasonForNone) {
  return printValue(settings, device, key, text.empty() ? Json(nullptr) : Json(text), text, reasonForNone);
}

void printTable(const std::vector<ListedDevice>& devices) {
  Table table({"NO", "NAME", "LABEL", "TYPE", "CAPACITY", "USB", "OPEN", "MOUNT POINT"});
  for (const auto& [device, hidden] : devices) {
    table.add({std::to_string(device.number) + (hidden ? " (hidden)" : ""), printable(device.kernelName),
               printable(device.label), device.type, capacityText(device.capacity),
               printable(device.usbVersion.value_or("unknown")), device.open ? "yes" : "no",
               printable(device.mountPoint)});
  }
  table.print(std::cout);
}

}  // namespace

int status(const Settings& settings, bool includeHidden) {
  const auto devices = readDevices(settings, includeHidden);
  if (settings.json) {
    Json result = Json::array();
    for (const auto& [device, hidden] : devices) {
      result.push_back(toJson(device));
      result.back()["hidden"] = hidden;
    }
    std::cout << toText(result) << '\n';
  } else {
    printTable(devices);
  }
  int exitCode = done;
  for (const auto& listed : devices) {
    exitCode = std::max(exitCode, complainOfContradiction(listed.device));
  }
  return exitCode;
}

int list(const Settings& settings, bool includeHidden) {
  const auto devices = UsbService(settings.timeout).deviceNumbers(includeHidden);
  if (settings.json) {
    std::cout << toText(devices) << '\n';
    return done;
  }
  for (const std::int16_t device : devices) {
    std::cout << device << '\n';
  }
  return done;
}

int info(const Settings& settings, std::int16_t number) {
  const Device device =
      ask(settings.timeout, [&](UsbService& service) { return readDevice(service, number); });
  if (settings.json) {
    std::cout << toText(toJson(device)) << '\n';
    return complainOfContradiction(device);
  }
  const auto print = [](const char* title, const std::string& text) {
    std::cout << title << printable(text) << '\n';
  };
  print("Device:       ", std::to_string(number));
  print("Kernel name:  ", device.kernelName);
  print("Label:        ", device.label);
  print("UUID:         ", device.uuid.value_or("none"));
  print("Type:         ", device.type);
  print("Capacity:     ", capacityText(device.capacity));
  print("USB version:  ", device.usbVersion.value_or("unknown"));
  print("Open:         ", device.open ? "yes" : "no");
  print("Mount point:  ", device.open ? device.mountPoint : "none");
  std::cout << "Mounted at:   " << (isMounted(device.mounted) ? placesText(device.mounted) : "nowhere")
            << '\n';
  print("File system:  ", device.mounted.fileSystem.value_or("unknown"));
  return complainOfContradiction(device);
}

int label(const Settings& settings, std::int16_t device) {
  const auto reply = askAbout(
      settings, device, [&](UsbService& service) { return service.text(&Client::GetDeviceLabel, device); });
  return printText(settings, device, "label", reply.text, "it has no label");
}

int uuid(const Settings& settings, std::int16_t device) {
  const auto reply = askAbout(
      settings, device, [&](UsbService& service) { return service.text(&Client::GetDeviceUuid, device); });
  return printText(settings, device, "uuid", reply.success ? reply.text : "",
                   "no UUID can be read from it (is it formatted?)");
}

int usbVersion(const Settings& settings, std::int16_t device) {
  const auto reply = askAbout(settings, device, [&](UsbService& service) {
    return service.text(&Client::GetDeviceUsbVersion, device);
  });
  return printText(settings, device, "usbVersion", reply.success ? reply.text : "",
                   "its USB version is unknown: readUsbVersion.sh is missing, fails or prints nothing");
}

int type(const Settings& settings, std::int16_t device) {
  const std::int32_t reply = askAbout(settings, device, [&](UsbService& service) {
    return service.call([&](Client& client) { return client.GetDeviceType(device); });
  });
  const std::string name = typeName(reply);
  return printText(settings, device, "type", name == "unknown" ? "" : name,
                   "the kernel does not say whether it is removable");
}

int capacity(const Settings& settings, std::int16_t device) {
  const std::int32_t reply = askAbout(settings, device, [&](UsbService& service) {
    return service.call([&](Client& client) { return client.GetDeviceCapacity(device); });
  });
  return printValue(settings, device, "capacityMiB", reply == 0 ? Json(nullptr) : Json(reply),
                    capacityText(reply), "its node cannot be opened, or has no size");
}

int mountPoint(const Settings& settings, std::int16_t device) {
  bool isOpen = false;
  const std::string path = askAbout(settings, device, [&](UsbService& service) {
    isOpen = service.call([&](Client& client) { return client.IsDeviceOpen(device); });
    return service.text(&Client::GetUsbMountPoint, device).text;
  });
  return printText(settings, device, "mountPoint", isOpen ? path : "",
                   path.empty()
                       ? "it is not open"
                       : "it is not open; the last attempt to open it at " + quotedList({path}) + " failed");
}

int kernelName(const Settings& settings, std::int16_t device) {
  const std::string name =
      ask(settings.timeout, [&](UsbService& service) { return requireDevice(service, device); });
  return printText(settings, device, "kernelName", name, "it has no name");
}

int isOpen(const Settings& settings, std::int16_t device) {
  const bool reply = askAbout(settings, device, [&](UsbService& service) {
    return service.call([&](Client& client) { return client.IsDeviceOpen(device); });
  });
  if (settings.json) {
    std::cout << toText({{"device", device}, {"open", reply}}) << '\n';
  } else {
    std::cout << (reply ? "yes" : "no") << '\n';
  }
  return reply ? done : answerIsNo;
}

int files(const Settings& settings, std::int16_t device, const std::string& directory,
          const std::string& extension) {
  std::vector<std::string> names;
  std::string path;
  const bool isOpen = askAbout(settings, device, [&](UsbService& service) {
    // Without a mount point the daemon looks the directory up from the root of its own file system.
    if (!service.call([&](Client& client) { return client.IsDeviceOpen(device); })) {
      return false;
    }
    service.call([&](Client& client) { client.GetFilesByExtension(names, device, directory, extension); });
    path = service.text(&Client::GetUsbMountPoint, device).text + "/" + directory;
    return true;
  });
  if (!isOpen) {
    complain(nameOf(device) + ": it is not open; open it first (dockhandctl open " + std::to_string(device) +
             ")");
    return answerIsNo;
  }
  const std::optional<bool> mayBeCut = exceeds(path, settings.directoryBounds);
  if (settings.json) {
    std::cout << toText({{"device", device},
                         {"directory", directory},
                         {"extension", extension},
                         {"files", names},
                         {"mayBeCut", mayBeCut ? Json(*mayBeCut) : Json(nullptr)}})
              << '\n';
  } else {
    for (const std::string& name : names) {
      std::cout << printable(name) << '\n';
    }
  }
  if (mayBeCut.value_or(false)) {
    complain(nameOf(device) + ": files may be missing: " + quotedList({path}) +
             " has more names than dockhand reads of one directory; spread them over several");
  }
  return done;
}

}  // namespace dockhandctl
