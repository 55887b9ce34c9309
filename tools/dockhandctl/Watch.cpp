#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <functional>
#include <iostream>
#include <string>

#include "Commands.h"
#include "Failure.h"
#include "Json.h"
#include "MediaServiceStandIn.h"
#include "UsbService.h"

namespace dockhandctl {
namespace {

using Client = UsbService::Client;

/// The device number of the Xrite device in events.
constexpr std::int16_t xriteDevice = -1;

void print(const Settings& settings, const Event& event) {
  const bool xrite = event.device == xriteDevice;
  if (settings.json) {
    std::cout << toText({{"event", event.name},
                         {"device", xrite ? Json("xrite") : Json(event.device)},
                         {"observerId", static_cast<int>(event.observerId)},
                         {"observer", event.observer}})
              << std::endl;
  } else {
    std::cout << event.name << ' ' << (xrite ? "Xrite device" : "device " + std::to_string(event.device))
              << std::endl;
  }
}

/// Blocks SIGINT, SIGTERM and SIGHUP for the whole process, and takes them one by one.
class TerminationSignals {
 public:
  TerminationSignals() {
    sigemptyset(&signals_);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
      sigaddset(&signals_, signal);
    }
    if (pthread_sigmask(SIG_BLOCK, &signals_, nullptr) != 0) {
      throw Failure(ownFailure, "signals cannot be blocked");
    }
    // If the reader goes away, the watch must still deregister.
    ::signal(SIGPIPE, SIG_IGN);
  }

  void waitForOne() const {
    int taken = 0;
    while (sigwait(&signals_, &taken) != 0) {
    }
  }

 private:
  sigset_t signals_{};
};

}  // namespace

int watch(const Settings& settings, std::int8_t observerId) {
  // Before the server starts its threads, because they inherit the blocked signals.
  const TerminationSignals terminationSignals;
  std::atomic<bool> outputFailed{false};
  const MediaServiceStandIn mediaService([&](const Event& event) {
    print(settings, event);
    if (!std::cout && !outputFailed.exchange(true)) {
      ::kill(::getpid(), SIGTERM);
    }
  });

  const std::int32_t observer = ::getpid();
  UsbService(settings.timeout).call([&](Client& client) {
    client.RegisterUsbAddedCallBack(observerId, observer);
    client.RegisterUsbRemovedCallBack(observerId, observer);
  });
  std::cerr << "Watching as observer " << static_cast<int>(observerId) << "; Ctrl-C ends it." << std::endl;
  terminationSignals.waitForOne();
  UsbService(settings.timeout).call([&](Client& client) {
    client.DeregisterUsbAddedCallBack(observerId, observer);
    client.DeregisterUsbRemovedCallBack(observerId, observer);
  });
  return done;
}

}  // namespace dockhandctl
