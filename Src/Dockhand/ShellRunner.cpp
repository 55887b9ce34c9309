// The shell: runs the tools that change disks, and sees to it that what they say is kept.

#include "DockhandClient.h"
#include "ModuleLog.h"

namespace Dockhand {

int DockhandClient::executeShellCommand(const std::string& command, int sourceLine, bool passLogAlways,
                                        bool* wasRun) {
  static const std::string logFile = "/tmp/Dockhand.log";
  static const std::string passLog = "logger -s -t Dockhand <" + logFile;

  usbClientLog.write(3, 124, "Executing: ", command, " # from Line=", sourceLine);
  const bool logFileIsOurs = claimForShell(logFile);
  if (wasRun != nullptr) {
    *wasRun = logFileIsOurs;
  }
  int status = -1;
  if (logFileIsOurs) {
    status = platform_.system(command + " 1>" + logFile + " 2>&1");
  }
  if (status != 0) {
    // Before the warning, so that the tool's own words stand above it in the system log.
    if (logFileIsOurs) {
      platform_.system(passLog);
    }
    usbClientLog.write(4, 129, "Warning: ", command, " returned ", status, " # from Line=", sourceLine);
  } else if (passLogAlways) {
    platform_.system(passLog);
  }
  return status;
}

bool DockhandClient::claimForShell(const std::string& file) {
  const Claim claim = platform_.claimFile(file);
  if (claim == Claim::movedAside) {
    usbClientLog.write(4, 136, file, " was not ours and has been moved aside, to ", file, ".moved-*");
  } else if (claim == Claim::refused) {
    usbClientLog.write(5, 138, "Not executed, since ", file, " is not ours and cannot be moved");
  } else if (claim == Claim::tooManyMoved) {
    usbClientLog.write(5, 140, "Not executed, since ", file, " is not ours, and there are ", maxMovedAside,
                       " directories ", file, ".moved-*: remove them");
  }
  return claim == Claim::ours || claim == Claim::movedAside;
}

void DockhandClient::forceUnmount(const std::string& node, int sourceLine, const char* occasion) {
  constexpr int mostStackedMounts = 10;
  const std::string command = "umount -f " + node + " 1>/dev/null 2>&1";
  for (int run = 0; run < mostStackedMounts && platform_.system(command) == 0; ++run) {
    usbClientLog.write(3, sourceLine, "unmounted: ", node, occasion);
  }
}

}  // namespace Dockhand
