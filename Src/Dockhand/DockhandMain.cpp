#include <unistd.h>

#include "DockhandServer.h"
#include "LinuxPlatform.h"
#include "ModuleLog.h"

namespace {

const Dockhand::ModuleLog mainLog{
    TlogContext::GetLogContext("Dockhand.main", "Src/Dockhand/DockhandMain", 10),
    "Src/Dockhand/DockhandMain"};

}  // namespace

/// Runs in the foreground until it is killed. A failure to start ends the process with the exception's text.
int main() {
  TlogInit();
  Dockhand::LinuxPlatform platform;

  mainLog.write(2, 19, "Before Creating DockhandServer");
  const Dockhand::DockhandServer server(platform);
  mainLog.write(2, 21, "After Creating DockhandServer");

  constexpr unsigned int hour = 3600;
  while (true) {
    sleep(hour);
  }
}
