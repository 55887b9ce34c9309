#include "Shell.h"

#include "ClaimedFile.h"
#include "ModuleLog.h"

namespace Dockhand {

int Shell::run(const std::string& command, int sourceLine, bool passLogAlways, bool* wasRun) const {
  static const std::string logFile = "/tmp/Dockhand.log";
  static const std::string passLog = "logger -s -t Dockhand <" + logFile;

  usbClientLog.notice(124, "Executing: ", command, " # from Line=", sourceLine);
  const bool logFileIsOurs = claim(logFile);
  if (wasRun != nullptr) {
    *wasRun = logFileIsOurs;
  }
  int status = -1;
  if (logFileIsOurs) {
    status = platform_.system(command + " 1>" + logFile + " 2>&1");
  }
  if (status != 0) {
    // First the output, so that it is above the warning in the system log.
    if (logFileIsOurs) {
      platform_.system(passLog);
    }
    usbClientLog.warning(129, "Warning: ", command, " returned ", status, " # from Line=", sourceLine);
  } else if (passLogAlways) {
    platform_.system(passLog);
  }
  return status;
}

bool Shell::claim(const std::string& file) const {
  const Claim outcome = claimFile(platform_, file);
  if (outcome == Claim::movedAside) {
    usbClientLog.warning(136, file, " was not ours and has been moved aside, to ", file, ".moved-*");
  } else if (outcome == Claim::refused) {
    usbClientLog.error(138, "Not executed, since ", file, " is not ours and cannot be moved");
  } else if (outcome == Claim::tooManyMoved) {
    usbClientLog.error(140, "Not executed, since ", file, " is not ours, and there are ", maxMovedAside,
                       " directories ", file, ".moved-*: remove them");
  }
  return outcome == Claim::ours || outcome == Claim::movedAside;
}

void Shell::forceUnmount(const std::string& node, int sourceLine, const char* occasion) const {
  constexpr int maxStackedMounts = 10;
  const std::string command = "umount -f " + node + " 1>/dev/null 2>&1";
  for (int run = 0; run < maxStackedMounts && platform_.system(command) == 0; ++run) {
    usbClientLog.notice(sourceLine, "unmounted: ", node, occasion);
  }
}

}  // namespace Dockhand
