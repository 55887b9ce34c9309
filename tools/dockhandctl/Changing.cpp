#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "Commands.h"
#include "Device.h"
#include "Failure.h"
#include "Holders.h"
#include "Mounts.h"
#include "Text.h"
#include "UsbService.h"

namespace dockhandctl {
namespace {

using Client = UsbService::Client;

std::string defaultDirectory(std::int16_t device) {
  return "/media/disk_" + std::to_string(device);
}

/// Opening at another directory leaves the first mount in place, and the daemon forgets that mount.
std::string reasonNotToOpenAgain(UsbService& service, std::int16_t device, const std::string& directory) {
  if (!service.call([&](Client& client) { return client.IsDeviceOpen(device); })) {
    return {};
  }
  const std::string path = service.text(&Client::GetUsbMountPoint, device).text;
  if (canonicalPath(path) == canonicalPath(directory)) {
    return {};
  }
  return "it is open at " + quotedList({path}) + "; close it first (dockhandctl close " +
         std::to_string(device) + "), or give --again to mount it at " + quotedList({directory}) + " too";
}

std::string reasonForNotOpening(UsbService& service, std::int16_t device) {
  const auto devices = service.deviceNumbers(true);
  if (std::find(devices.begin(), devices.end(), device) == devices.end()) {
    return "it was closed for safe removal; pull it out and plug it in again";
  }
  return "its file system cannot be mounted, the directory cannot be made, or the device is under repair; "
         "dockhand's log says which";
}

std::string reasonForNotClosing(const Device& device) {
  if (device.mountPoint.empty()) {
    const std::string text = contradiction(device);
    return text.empty() ? "it is not open" : text;
  }
  const std::string path = quotedList({device.mountPoint});
  const Holders holders = holdersOf(canonicalPath(device.mountPoint));
  std::string text = holders.lines.empty()
                         ? path +
                               " cannot be unmounted; no visible process uses it, but a mount below it, a "
                               "loop device or a swap file may; dockhand's log has the error"
                         : path + " is in use; end these processes or let them release it, and try again:";
  for (const std::string& line : holders.lines) {
    text += "\n  " + line;
  }
  return holders.complete ? text
                          : text + "\n  (some processes could not be inspected" +
                                (::geteuid() == 0 ? ")" : "; run as root)");
}

int complainThatNotDone(std::int16_t device, const std::string& what, const std::string& reason) {
  complain(nameOf(device) + ": not " + what + ": " + reason);
  return answerIsNo;
}

}  // namespace

int open(const Settings& settings, std::int16_t device, const std::string& directory, bool pvr, bool again) {
  std::string path = defaultDirectory(device);
  try {
    path = directory.empty() ? path : closablePath(directory);
  } catch (const std::runtime_error& reason) {
    return complainThatNotDone(device, "opened", reason.what());
  }
  std::string reasonForNot;
  Device opened;
  ask(settings.timeout, [&](UsbService& service) {
    reasonForNot = again ? "" : reasonNotToOpenAgain(service, device, path);
    if (!reasonForNot.empty()) {
      return;
    }
    const bool isOpened = service.call([&](Client& client) {
      return directory.empty() && !pvr ? client.OpenDevice(device) : client.OpenDeviceAt(device, path, pvr);
    });
    if (isOpened) {
      opened = readMountState(service, device);
    } else {
      requireDevice(service, device);
      reasonForNot = reasonForNotOpening(service, device);
    }
  });
  if (!reasonForNot.empty()) {
    return complainThatNotDone(device, "opened", reasonForNot);
  }
  const int exitCode = complainOfContradiction(opened);
  if (exitCode == done) {
    std::cout << nameOf(device) << " is open at " << printable(opened.mountPoint)
              << (opened.mounted.at.size() > 1 ? "; it is mounted at " + placesText(opened.mounted) : "")
              << '\n';
  }
  return exitCode;
}

int close(const Settings& settings, std::int16_t device, bool safe) {
  bool closed = false;
  Device state;
  Mounted left;
  ask(settings.timeout, [&](UsbService& service) {
    closed = service.call([&](Client& client) {
      return safe ? client.CloseDeviceSafeRemoval(device) : client.CloseDevice(device);
    });
    state = readMountState(service, device);
    // The user pulls out the whole disk.
    left = safe ? readMountedOfDisk(state.kernelName, service.daemon()) : state.mounted;
  });
  if (!closed) {
    return complainThatNotDone(device, "closed", reasonForNotClosing(state));
  }
  if (isMounted(left)) {
    complain(nameOf(device) + ": closed, but " + (isMounted(state.mounted) ? "" : "its disk is ") +
             "still mounted at " + placesText(left) + unmountFirst);
    return answerIsNo;
  }
  std::cout << nameOf(device) << (safe ? " may be pulled out" : " is closed") << '\n';
  return done;
}

int rescan(const Settings& settings) {
  UsbService(settings.timeout).call([](Client& client) { client.CheckForAndUpdateNewDevices(); });
  return done;
}

int notify(const Settings& settings, const std::string& event, const std::string& name) {
  UsbService service(settings.timeout);
  try {
    service.call([&](Client& client) {
      if (event == "added") {
        client.NotifyUsbAdded(name);
      } else if (event == "removed") {
        client.NotifyUsbRemoved(name);
      } else if (event == "xrite-added") {
        client.NotifyUsbXriteAdded();
      } else {
        client.NotifyUsbXriteRemoved();
      }
    });
  } catch (const Failure& failure) {
    if (failure.exitCode() != daemonFailed) {
      throw;
    }
    // The daemon has already processed the event itself.
    throw Failure(daemonFailed, event + (name.empty() ? "" : " " + printable(name)) +
                                    ": not all observers were told: " + failure.what());
  }
  return done;
}

int observer(const Settings& settings, const std::string& action, const std::string& event,
             std::int8_t observerId, std::int32_t value) {
  UsbService(settings.timeout).call([&](Client& client) {
    if (action == "add" && event == "added") {
      client.RegisterUsbAddedCallBack(observerId, value);
    } else if (action == "add") {
      client.RegisterUsbRemovedCallBack(observerId, value);
    } else if (event == "added") {
      client.DeregisterUsbAddedCallBack(observerId, value);
    } else {
      client.DeregisterUsbRemovedCallBack(observerId, value);
    }
  });
  return done;
}

}  // namespace dockhandctl
