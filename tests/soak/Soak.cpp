#include "Soak.h"

#include <dirent.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <boost/shared_ptr.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <iostream>
#include <iterator>
#include <random>
#include <thread>
#include <utility>

#include "Client.h"
#include "TUnixServerSocket.h"
#include "thrift_server.h"

namespace soak {

using testsupport::UsbClient;

namespace {

constexpr std::size_t laps = 10;
/// No wait takes this long, except after a failure.
constexpr std::chrono::seconds timeout{20};

using RpcServer = ravel::rpc::thrift_server<ravel::rpc::usb_rpc_gen_If, ravel::rpc::usb_rpc_gen_Processor,
                                            9020, 10, ravel::rpc::TUnixServerSocket>;

std::size_t openDescriptors() {
  DIR* const directory = opendir("/proc/self/fd");
  std::size_t count = 0;
  while (readdir(directory) != nullptr) {
    ++count;
  }
  closedir(directory);
  // Do not count ".", ".." and the descriptor of the directory.
  return count - 3;
}

/// A worker closes its connection a little after the end. Waits until the number of descriptors is stable.
std::size_t settledDescriptors() {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  std::size_t count = openDescriptors();
  int unchanged = 0;
  while (unchanged < 50 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    const std::size_t now = openDescriptors();
    unchanged = now == count ? unchanged + 1 : 0;
    count = now;
  }
  return count;
}

std::size_t residentKiB() {
  std::ifstream statm("/proc/self/statm");
  std::size_t size = 0;
  std::size_t resident = 0;
  statm >> size >> resident;
  return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) / 1024;
}

std::string environment(const char* name) {
  const char* const value = std::getenv(name);
  return value != nullptr ? value : "";
}

}  // namespace

Settings settingsFor(std::size_t defaultRounds) {
  const std::string rounds = environment("DOCKHAND_SOAK_ROUNDS");
  const std::string seed = environment("DOCKHAND_SOAK_SEED");
  Settings settings;
  settings.rounds = rounds.empty() ? defaultRounds : std::stoul(rounds);
  settings.seed = seed.empty() ? std::random_device()() : std::stoull(seed);
  return settings;
}

Soak::Soak(World& world, std::vector<std::vector<Stick>> sticksOfClients, const Settings& settings)
    : world_(world),
      sticksOfClients_(std::move(sticksOfClients)),
      settings_(settings),
      platform_(world.platform(), CheckedHandler::decide),
      handler_(std::make_shared<CheckedHandler>(world, platform_, settings.seed)),
      mediaService_(std::make_unique<testsupport::MediaService>()) {
  // The mkdir judge prints each failure there.
  std::cout.setstate(std::ios::failbit);
  RpcServer server(boost::shared_ptr<ravel::rpc::usb_rpc_gen_If>(handler_.get(), [](auto*) {}));
  server.start();
  const std::map<int, int> observers = {{-3, 997}, {5, 1005}, {7, 1007}};
  UsbClient usb;
  for (const auto& [observerId, observer] : observers) {
    usb->RegisterUsbAddedCallBack(static_cast<std::int8_t>(observerId), observer);
    usb->RegisterUsbRemovedCallBack(static_cast<std::int8_t>(observerId), observer);
  }
  handler_->setObservers(observers);
}

void Soak::run() {
  lap(0);
  start_ = measure();
  for (std::size_t number = 1; number <= laps && !handler_->hasFailed(); ++number) {
    lap(number);
    if (number == laps / 2) {
      middle_ = measure();
    }
  }
  end_ = measure();
  mediaService_.reset();
}

void Soak::lap(std::size_t number) {
  // In every other lap the mount table is longer than the part that the handler reads.
  handler_->fillMountTable(number % 2 == 0 ? 0 : 800);
  handler_->setFaults(true);
  const std::size_t clients = sticksOfClients_.size();
  std::vector<std::thread> threads;
  for (std::size_t client = 0; client < clients; ++client) {
    // The first clients of the first laps run the rest of the division.
    const std::size_t shares = laps * clients;
    const std::size_t share = number == 0 ? client : (number - 1) * clients + client;
    const std::size_t rounds = settings_.rounds / shares + (share < settings_.rounds % shares ? 1 : 0);
    threads.emplace_back([this, client, rounds, seed = settings_.seed + number * clients + client] {
      try {
        Client user(*handler_, sticksOfClients_[client], seed);
        for (std::size_t round = 0; round < rounds && !handler_->hasFailed(); ++round) {
          user.round();
        }
      } catch (const std::exception& exception) {
        handler_->fail(std::string("a client got: ") + exception.what());
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  handler_->compareAtRest("after lap " + std::to_string(number));
  bringToRest(number);
}

void Soak::bringToRest(std::size_t lapNumber) {
  if (handler_->hasFailed()) {
    return;
  }
  handler_->setFaults(false);
  clearPlaces();
  handler_->compareAtRest("at rest after lap " + std::to_string(lapNumber));
  compareCallbacks();
  std::string left = world_.underMedia();
  for (const std::int16_t device : UsbClient().devices(true)) {
    left += "device " + std::to_string(device) + '\n';
  }
  if (!left.empty()) {
    leftAtRest_ += "after lap " + std::to_string(lapNumber) + ":\n" + left;
  }
}

void Soak::clearPlaces() {
  UsbClient usb;
  for (const std::vector<Stick>& sticks : sticksOfClients_) {
    for (const Stick& stick : sticks) {
      handler_->unplug(stick);
      // A scan may skip the first record.
      while (handler_->recordOf(stick)) {
        usb->CheckForAndUpdateNewDevices();
      }
    }
  }
  // A blank stick can be opened at any place, and mounts nothing there. Opening it unmounts the top mount of
  // the place. Closing it unmounts the one below and removes the directory.
  Stick blank;
  blank.name = "sdz";
  handler_->plug(blank);
  usb.devices();
  const std::int16_t device = handler_->recordOf(blank).value().first;
  std::vector<std::string> places = handler_->placesInUse();
  constexpr int maxAttempts = 1000;
  for (int place = 0; place < maxAttempts && !places.empty() && !handler_->hasFailed(); ++place) {
    usb->OpenDeviceAt(device, places.front(), false);
    usb->CloseDevice(device);
    places = handler_->placesInUse();
  }
  handler_->unplug(blank);
  usb->NotifyUsbRemoved(blank.name);
}

void Soak::compareCallbacks() {
  std::vector<std::string> received;
  for (const testsupport::Callback& callback : mediaService_->takeCallbacks()) {
    received.push_back(callback.event + ' ' + std::to_string(callback.usbDevice) + ' ' +
                       std::to_string(callback.observerId) + ' ' + std::to_string(callback.observer));
  }
  std::sort(received.begin(), received.end());
  const std::vector<std::string> expected = handler_->takeCallbacks();
  if (received != expected) {
    handler_->fail("observers got " + std::to_string(received.size()) + " callbacks that differ from the " +
                   std::to_string(expected.size()) + " expected ones");
  }
}

Figures Soak::measure() const {
  Figures figures;
  figures.descriptors = settledDescriptors();
  // Return freed memory to the kernel, so that only memory in use counts.
  malloc_trim(0);
  figures.heapBytes = mallinfo2().uordblks;
  figures.residentKiB = residentKiB();
  return figures;
}

std::string Soak::growth() const {
  // Less than four bytes for each of 5,000 rounds. The texts that the comparison keeps for its messages vary
  // by a few KiB.
  constexpr std::size_t heapSlack = 16 << 10;
  // Freed pages that still contain a small block: their number varies by up to about forty.
  constexpr std::size_t residentSlackKiB = 512;
  std::string text;
  if (end_.heapBytes > middle_.heapBytes + heapSlack) {
    text += std::to_string(end_.heapBytes - middle_.heapBytes) + " bytes more in use ";
  }
  if (end_.residentKiB > middle_.residentKiB + residentSlackKiB) {
    text += std::to_string(end_.residentKiB - middle_.residentKiB) + " KiB more resident";
  }
  return text;
}

void Soak::print() {
  std::size_t faults = 0;
  std::size_t kinds = 0;
  for (const auto& [call, errors] : handler_->faults()) {
    kinds += errors.size();
    for (const auto& [error, count] : errors) {
      faults += count;
    }
  }
  std::printf("soak: seed %llu, %zu clients, %zu rounds, %zu operations compared\n",
              static_cast<unsigned long long>(settings_.seed), sticksOfClients_.size(), settings_.rounds,
              handler_->steps());
  std::printf("soak: %zu calls failed, in %zu of %zu pairs of call and errno\n", faults, kinds,
              Faults::calls().size() * Faults::errors().size());
  const std::pair<const char*, Figures> moments[] = {{"start", start_}, {"middle", middle_}, {"end", end_}};
  for (const auto& [moment, figures] : moments) {
    std::printf("soak: %-6s %zu KiB resident, %zu bytes of heap in use, %zu descriptors\n", moment,
                figures.residentKiB, figures.heapBytes, figures.descriptors);
  }
  std::fflush(stdout);
}

}  // namespace soak
