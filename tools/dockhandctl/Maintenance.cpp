#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <iostream>
#include <string>
#include <system_error>

#include "Commands.h"
#include "Device.h"
#include "Failure.h"
#include "Text.h"
#include "UsbService.h"

namespace dockhandctl {
namespace {

using Client = UsbService::Client;

/// Waits for the operation. On a terminal, shows the time that has passed.
bool runShowingTime(const std::string& title, const std::function<bool()>& operation) {
  if (isatty(STDERR_FILENO) == 0) {
    return operation();
  }
  using std::chrono::seconds;
  using std::chrono::steady_clock;
  const auto begin = steady_clock::now();
  auto result = std::async(std::launch::async, operation);
  do {
    const auto elapsed = std::chrono::duration_cast<seconds>(steady_clock::now() - begin);
    std::cerr << '\r' << title << ": " << elapsed.count() << " s" << std::flush;
  } while (result.wait_for(seconds(1)) != std::future_status::ready);
  std::cerr << '\n';
  return result.get();
}

std::string reasonForNotRepairing(UsbService& service, std::int16_t device) {
  if (service.call([&](Client& client) { return client.IsDeviceOpen(device); })) {
    return "it is open; close it first";
  }
  return "its file system is not XFS, or xfs_repair failed; see /tmp/Dockhand.log and dockhand's log";
}

}  // namespace

void confirmWiping(const Settings& settings, std::int16_t device) {
  const Device disk = ask(settings.timeout, [&](UsbService& service) { return readDevice(service, device); });
  std::cerr << "This wipes the whole disk " << printable(diskName(disk.kernelName)) << ":\n"
            << "  device    " << device << " (" << printable(disk.kernelName) << ")\n"
            << "  label     " << printable(disk.label) << '\n'
            << "  size      " << capacityText(disk.capacity) << '\n'
            << "  open      " << (disk.open ? "yes, at " + printable(disk.mountPoint) : "no") << std::endl;
  if (isatty(STDIN_FILENO) == 0) {
    throw Failure(notConfirmed,
                  nameOf(device) + ": nothing was done: there is no terminal to ask on; give --yes");
  }
  std::cerr << "Type yes to go on: " << std::flush;
  std::string answer;
  std::getline(std::cin, answer);
  if (answer != "yes") {
    throw Failure(notConfirmed, nameOf(device) + ": nothing was done");
  }
  // Numbers are reused, so another disk may have this one now.
  const bool isTheSame = ask(settings.timeout, [&](UsbService& service) {
    return requireDevice(service, device) == disk.kernelName &&
           service.text(&Client::GetDeviceLabel, device).text == disk.label;
  });
  if (!isTheSame) {
    throw Failure(notConfirmed, nameOf(device) + ": nothing was done: it is another disk now; try again");
  }
}

int prepare(const Settings& settings, std::int16_t device, bool confirmed) {
  if (!confirmed) {
    confirmWiping(settings, device);
  }
  // After a call for an unknown device the daemon would ignore plug events.
  const std::string kernelName =
      printable(ask(settings.timeout, [&](UsbService& service) { return requireDevice(service, device); }));
  const bool prepared = runShowingTime("Preparing " + nameOf(device) + " (" + kernelName + ")", [&] {
    return ask(settings.timeout, [&](UsbService& service) {
      service.waitForever();
      return service.call([&](Client& client) { return client.PrepareDeviceForPvr(device); });
    });
  });
  if (!prepared) {
    complain(nameOf(device) + " (" + kernelName +
             "): partitioning or formatting failed; see /tmp/Dockhand.log and dockhand's log, and "
             "run dockhandctl doctor");
    return answerIsNo;
  }
  std::cout << nameOf(device) << " is a recording disk now\n";
  return done;
}

int repair(const Settings& settings, std::int16_t device) {
  const std::string kernelName =
      printable(ask(settings.timeout, [&](UsbService& service) { return requireDevice(service, device); }));
  std::string reasonForNot;
  const bool repaired = runShowingTime("Repairing " + nameOf(device) + " (" + kernelName + ")", [&] {
    return ask(settings.timeout, [&](UsbService& service) {
      service.waitForever();
      if (service.call([&](Client& client) { return client.RunDiskRepair(device); })) {
        return true;
      }
      reasonForNot = reasonForNotRepairing(service, device);
      return false;
    });
  });
  if (!repaired) {
    complain(nameOf(device) + ": not repaired: " + reasonForNot);
    return answerIsNo;
  }
  std::cout << nameOf(device) << " is repaired\n";
  return done;
}

}  // namespace dockhandctl
