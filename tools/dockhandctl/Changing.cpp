#include <algorithm>
#include <iostream>

#include "Commands.h"
#include "Device.h"
#include "Failure.h"
#include "Text.h"
#include "UsbService.h"

namespace dockhandctl {
namespace {

using Client = UsbService::Client;

std::string reasonForNotOpening(UsbService& service, std::int16_t device) {
  const auto devices = service.deviceNumbers(true);
  if (std::find(devices.begin(), devices.end(), device) == devices.end()) {
    return "it was closed for safe removal; plug it in anew, or announce it (dockhandctl notify added NAME)";
  }
  return "its file system cannot be mounted, the directory cannot be made, or the device is under repair; "
         "dockhand's log tells which";
}

std::string reasonForNotClosing(UsbService& service, std::int16_t device) {
  const std::string path = service.text(&Client::GetUsbMountPoint, device).text;
  if (path.empty()) {
    return "it is not open";
  }
  return printable(path) + " cannot be unmounted; most often a file or a directory there is in use";
}

}  // namespace

int open(const Settings& settings, std::int16_t device, const std::string& directory, bool pvr) {
  std::string reasonForNot;
  std::string path;
  ask(settings.timeout, [&](UsbService& service) {
    const bool opened = service.call([&](Client& client) {
      if (directory.empty() && !pvr) {
        return client.OpenDevice(device);
      }
      const std::string usual = "/media/disk_" + std::to_string(device);
      return client.OpenDeviceAt(device, directory.empty() ? usual : directory, pvr);
    });
    if (opened) {
      path = service.text(&Client::GetUsbMountPoint, device).text;
    } else {
      requireDevice(service, device);
      reasonForNot = reasonForNotOpening(service, device);
    }
  });
  if (!reasonForNot.empty()) {
    complain(nameOf(device) + ": not opened: " + reasonForNot);
    return answerIsNo;
  }
  std::cout << nameOf(device) << " is open at " << printable(path) << '\n';
  return done;
}

int close(const Settings& settings, std::int16_t device, bool safe) {
  std::string reasonForNot;
  ask(settings.timeout, [&](UsbService& service) {
    const bool closed = service.call([&](Client& client) {
      return safe ? client.CloseDeviceSafeRemoval(device) : client.CloseDevice(device);
    });
    if (!closed) {
      requireDevice(service, device);
      reasonForNot = reasonForNotClosing(service, device);
    }
  });
  if (!reasonForNot.empty()) {
    complain(nameOf(device) + ": not closed: " + reasonForNot);
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
    // The event itself has been taken in by then.
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
