#include "HandlerTest.h"

#include <algorithm>
#include <chrono>
#include <future>
#include <thread>

HandlerTest::HandlerTest() : context_(Dockhand::usbClientLog.context) {
  setThreshold(1);
  handler = std::make_unique<TestableHandler>(platform);
  journal().clear();
}

HandlerTest::~HandlerTest() {
  journal().onLine = nullptr;
  Dockhand::usbClientLog.context = context_;
}

std::int16_t HandlerTest::plugIn(const std::vector<std::string>& nodes, const std::string& fsType) {
  for (const std::string& node : nodes) {
    platform.deviceNodes.push_back("usb_storage_" + node);
    FakePlatform::Disk disk;
    if (!fsType.empty()) {
      disk.values["TYPE"] = fsType;
    }
    platform.disks["/dev/usb_storage_" + node] = disk;
  }
  std::vector<std::uint32_t> before;
  for (const auto& [key, known] : handler->deviceMap) {
    before.push_back(key);
  }
  handler->CheckForAndUpdateNewDevices();
  std::int16_t added = 0;
  for (const auto& [key, known] : handler->deviceMap) {
    if (std::find(before.begin(), before.end(), key) == before.end()) {
      added = static_cast<std::int16_t>(key);
    }
  }
  journal().clear();
  return added;
}

void HandlerTest::pullOut(const std::vector<std::string>& nodes) {
  for (const std::string& node : nodes) {
    auto& names = platform.deviceNodes;
    names.erase(std::remove(names.begin(), names.end(), "usb_storage_" + node), names.end());
    platform.disks.erase("/dev/usb_storage_" + node);
  }
}

void HandlerTest::setStatuses(const std::vector<std::pair<std::string, int>>& statuses) {
  platform.systemStatus = [statuses](const std::string& command) {
    const auto last = std::find_if(statuses.rbegin(), statuses.rend(),
                                   [&](const auto& row) { return begins(command, row.first); });
    return last != statuses.rend() ? last->second : 0;
  };
}

void HandlerTest::addRecordsUnderUnsignedNumbers() {
  for (const std::uint32_t key : {65535U, 32768U}) {
    handler->deviceMap[key] = entry(1);
    handler->deviceMap[key].mountPoint = "/media/wrong";
  }
}

bool HandlerTest::lockIsHeld() {
  bool held = false;
  std::thread([this, &held] {
    if (handler->handlerMutex.try_lock()) {
      handler->handlerMutex.unlock();
    } else {
      held = true;
    }
  }).join();
  return held;
}

void HandlerTest::watchLock() {
  platform.onCall = [this](const std::string& event) {
    if (!lockIsHeld()) {
      unlocked.push_back(event);
    }
  };
  journal().onLine = [this](const LoggedLine& line) {
    if (!lockIsHeld()) {
      unlocked.push_back(line.text);
    }
  };
}

bool HandlerTest::waitsForTheLock(const std::function<void()>& operation) {
  std::future<void> run;
  bool waited = false;
  {
    const Dockhand::HandlerLock lock(handler->handlerMutex);
    run = std::async(std::launch::async, operation);
    // An operation that waits never ends within this time, even on a slow machine.
    waited = run.wait_for(std::chrono::milliseconds(50)) == std::future_status::timeout;
  }
  run.get();
  return waited;
}
