// Observer tables: the observers that the notifications call, one table for each kind of event.

#include <ios>

#include "DockhandClient.h"
#include "ModuleLog.h"

namespace Dockhand {

void DockhandClient::RegisterUsbAddedCallBack(std::int8_t observerId, std::int32_t observer) {
  usbClientLog.trace(1350, "Register USB ADDED callback for observerId ", int{observerId},
                     " and observer is 0x", std::hex, observer);
  const HandlerLock lock(handlerMutex);
  addedObservers[observerId] = observer;
}

void DockhandClient::RegisterUsbRemovedCallBack(std::int8_t observerId, std::int32_t observer) {
  usbClientLog.trace(1360, "Register USB REMOVED callback for observerId ", int{observerId},
                     " and observer is 0x", std::hex, observer);
  const HandlerLock lock(handlerMutex);
  removedObservers[observerId] = observer;
}

void DockhandClient::DeregisterUsbAddedCallBack(std::int8_t observerId, std::int32_t observer) {
  usbClientLog.trace(1370, "Deregister USB ADDED callback for observerId ", int{observerId},
                     " and observer is 0x", std::hex, observer);
  const HandlerLock lock(handlerMutex);
  addedObservers.erase(observerId);
}

void DockhandClient::DeregisterUsbRemovedCallBack(std::int8_t observerId, std::int32_t observer) {
  usbClientLog.trace(1380, "Deregister USB REMOVED callback for observerId ", int{observerId},
                     " and observer is 0x", std::hex, observer);
  const HandlerLock lock(handlerMutex);
  removedObservers.erase(observerId);
}

}  // namespace Dockhand
