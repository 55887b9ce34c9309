#include "Client.h"

#include <utility>

namespace soak {

using testsupport::UsbClient;

Client::Client(CheckedHandler& handler, std::vector<Stick> sticks, std::uint64_t seed)
    : handler_(handler), sticks_(std::move(sticks)), random_(seed) {}

void Client::round() {
  const Stick& stick = sticks_[upTo(static_cast<unsigned>(sticks_.size()) - 1)];
  UsbClient usb;
  handler_.plug(stick);
  // Automounters do not mount recording disks.
  if (chance(15) && !stick.disk.mountsAs.empty() && stick.disk.mountsAs != "xfs") {
    const std::string label = stick.disk.label.size() > 1 ? stick.disk.label : "NONAME";
    handler_.automount(stick, "/media/" + (chance(50) ? label : chance(50) ? stick.disk.uuid : "disk"));
  }
  for (unsigned notice = upTo(2); notice > 0; --notice) {
    usb->NotifyUsbAdded(stick.announcedName());
  }
  const std::int16_t device = list(usb, stick);
  bool unplugged = false;
  if (device != 0) {
    compare(usb, stick, device);
    ask(usb, device);
    open(usb, stick, device);
    ask(usb, device);
    usb.files(device, "music", "mp3");
    usb.files(device, chance(50) ? "" : "missing", "TXT");
    if (chance(15)) {
      // Open it again while it is open, or after a failure.
      open(usb, stick, device);
    }
    if (chance(10)) {
      handler_.unplug(stick);
      unplugged = true;
    } else {
      close(usb, stick, device);
      for (unsigned repair = upTo(2); repair > 0; --repair) {
        usb->RunDiskRepair(device);
      }
    }
  }
  if (!unplugged) {
    handler_.unplug(stick);
  }
  if (chance(80)) {
    usb->NotifyUsbRemoved(stick.announcedName());
  } else {
    usb->CheckForAndUpdateNewDevices();
  }
}

std::int16_t Client::list(UsbClient& usb, const Stick& stick) {
  constexpr int maxAttempts = 20;
  for (int attempt = 0; attempt < maxAttempts; ++attempt) {
    usb.devices(chance(50));
    if (const auto known = handler_.recordOf(stick)) {
      return known->first;
    }
  }
  return 0;
}

void Client::open(UsbClient& usb, const Stick& stick, std::int16_t device) {
  for (unsigned attempt = upTo(1);; --attempt) {
    const bool opened = chance(80) ? usb->OpenDevice(device)
                                   : usb->OpenDeviceAt(device, "/media/of " + stick.name, chance(30));
    compare(usb, stick, device);
    if (opened || attempt == 0) {
      return;
    }
  }
}

void Client::ask(UsbClient& usb, std::int16_t device) {
  switch (upTo(6)) {
    case 0:
      usb.label(device);
      break;
    case 1:
      usb.uuid(device);
      break;
    case 2:
      usb->GetDeviceType(device);
      break;
    case 3:
      usb->GetDeviceCapacity(device);
      break;
    case 4:
      usb.usbVersion(device);
      break;
    case 5:
      usb.physicalDevice(device);
      break;
    default:
      // Refused while the device is open.
      usb->RunDiskRepair(device);
      break;
  }
}

void Client::close(UsbClient& usb, const Stick& stick, std::int16_t device) {
  for (unsigned attempt = upTo(2);; --attempt) {
    const bool closed = chance(30) ? usb->CloseDeviceSafeRemoval(device) : usb->CloseDevice(device);
    compare(usb, stick, device);
    if (closed || attempt == 0) {
      return;
    }
  }
}

void Client::compare(UsbClient& usb, const Stick& stick, std::int16_t device) {
  const auto known = handler_.recordOf(stick);
  if (!known || known->first != device) {
    handler_.fail(stick.name + " is no longer device " + std::to_string(device));
    return;
  }
  const bool open = usb->IsDeviceOpen(device);
  const std::string mountPoint = usb.mountPoint(device).text;
  if (open != known->second.open || mountPoint != known->second.mountPoint) {
    handler_.fail("the service says that device " + std::to_string(device) +
                  (open ? " is open" : " is closed") + " at \"" + mountPoint + '"');
  }
}

}  // namespace soak
