#include "DockhandClient.h"

#include "ModuleLog.h"

namespace Dockhand {

ModuleLog usbClientLog{TlogContext::GetLogContext("Dockhand.UsbClient", "Src/Dockhand/DockhandClient", 18),
                       "Src/Dockhand/DockhandClient"};

DockhandClient::DockhandClient(Platform& platform)
    : platform_(platform),
      shell_(platform),
      devices_(deviceMap),
      prober_(platform),
      mounts_(platform, prober_) {
  // Not a virtual call: an override in a derived class does not see the first scan.
  DockhandClient::CheckForAndUpdateNewDevices();
  mediaClient.reset(new MediaClient());
}

DockhandClient::~DockhandClient() {
  mediaClient.reset();
  deviceMap.clear();
}

}  // namespace Dockhand
