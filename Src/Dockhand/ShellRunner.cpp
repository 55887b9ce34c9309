// The shell: runs the tools that change disks, and sees to it that what they say is kept.

#include "DockhandClient.h"
#include "ModuleLog.h"

namespace Dockhand {

int DockhandClient::executeShellCommand(const std::string& command, int sourceLine, bool passLogAlways) {
  static const std::string passLog = "logger -s -t Dockhand </tmp/Dockhand.log";

  usbClientLog.write(3, 124, "Executing: ", command, " # from Line=", sourceLine);
  const int status = platform_.system(command + " 1>/tmp/Dockhand.log 2>&1");
  if (status != 0) {
    // Before the warning, so that the tool's own words stand above it in the system log.
    platform_.system(passLog);
    usbClientLog.write(4, 129, "Warning: ", command, " returned ", status, " # from Line=", sourceLine);
  } else if (passLogAlways) {
    platform_.system(passLog);
  }
  return status;
}

void DockhandClient::forceUnmount(const std::string& node, int sourceLine, const char* occasion) {
  constexpr int mostStackedMounts = 10;
  const std::string command = "umount -f " + node + " 1>/dev/null 2>&1";
  for (int run = 0; run < mostStackedMounts && platform_.system(command) == 0; ++run) {
    usbClientLog.write(3, sourceLine, "unmounted: ", node, occasion);
  }
}

}  // namespace Dockhand
