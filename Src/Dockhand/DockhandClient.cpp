#include "DockhandClient.h"

#include <cassert>

#include "ModuleLog.h"

namespace Dockhand {

ModuleLog usbClientLog{TlogContext::GetLogContext("Dockhand.UsbClient", "Src/Dockhand/DockhandClient", 18),
                       "Src/Dockhand/DockhandClient"};

DockhandClient::Lock::Lock(DockhandClient& client) : client_(client), lock_(client.handlerMutex) {
  client_.lockOwner_ = std::this_thread::get_id();
  ++client_.lockDepth_;
}

DockhandClient::Lock::~Lock() {
  if (--client_.lockDepth_ == 0) {
    client_.lockOwner_ = std::thread::id();
  }
}

DockhandClient::DockhandClient(Platform& platform) : platform_(platform) {
  // Not a virtual call yet: an override in a derived class does not see the first scan.
  DockhandClient::CheckForAndUpdateNewDevices();
  mediaClient.reset(new MediaClient());
}

DockhandClient::~DockhandClient() {
  mediaClient.reset();
  deviceMap.clear();
  if (failedProbe_ != nullptr) {
    platform_.blkid_free_probe(failedProbe_);
  }
}

void DockhandClient::requireLock() const {
  assert(lockOwner_.load() == std::this_thread::get_id());
}

UsbDeviceEntry* DockhandClient::findDevice(std::int16_t deviceId) {
  requireLock();
  const auto found = deviceMap.find(static_cast<std::uint32_t>(deviceId));
  return found != deviceMap.end() ? &found->second : nullptr;
}

}  // namespace Dockhand
