#ifndef DOCKHANDCTL_COMMANDS_H
#define DOCKHANDCTL_COMMANDS_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "DirectoryBounds.h"

/// The commands. Each writes its result to standard output, a complaint to standard error, and returns the
/// exit code, or throws Failure. None keeps a connection to the daemon beyond its calls.
namespace dockhandctl {

/// What every command has to know.
struct Settings {
  /// For connecting, and for each answer but those of prepare and repair.
  std::chrono::milliseconds timeout = std::chrono::seconds(30);
  /// JSON instead of text for people.
  bool json = false;
  /// What the daemon reads of one directory, for files.
  DirectoryBounds directoryBounds;
};

// Reading.

int status(const Settings& settings, bool includeHidden);
int list(const Settings& settings, bool includeHidden);
int info(const Settings& settings, std::int16_t number);
int label(const Settings& settings, std::int16_t device);
int uuid(const Settings& settings, std::int16_t device);
int usbVersion(const Settings& settings, std::int16_t device);
int type(const Settings& settings, std::int16_t device);
int capacity(const Settings& settings, std::int16_t device);
int mountPoint(const Settings& settings, std::int16_t device);
int kernelName(const Settings& settings, std::int16_t device);
int isOpen(const Settings& settings, std::int16_t device);
int files(const Settings& settings, std::int16_t device, const std::string& directory,
          const std::string& extension);

// Mounting and events.

/// An empty `directory` stands for the daemon's own choice. A device that is open at another directory is
/// opened only `again`.
int open(const Settings& settings, std::int16_t device, const std::string& directory, bool pvr, bool again);
int close(const Settings& settings, std::int16_t device, bool safe);
int rescan(const Settings& settings);
/// `event` is added, removed, xrite-added or xrite-removed; `name` belongs to the first two.
int notify(const Settings& settings, const std::string& event, const std::string& name);
/// `action` is add or remove, `event` added or removed.
int observer(const Settings& settings, const std::string& action, const std::string& event,
             std::int8_t observerId, std::int32_t value);

// Maintenance. The wait for the daemon has no end.

/// Wipes a disk, after somebody at the terminal has typed yes; `confirmed` stands for that.
int prepare(const Settings& settings, std::int16_t device, bool confirmed);
int repair(const Settings& settings, std::int16_t device);

/// Shows what is about to be wiped and asks. Throws Failure (notConfirmed) for every answer but yes.
void confirmWiping(const Settings& settings, std::int16_t device);

// Everything else.

/// Any operation by the name that it has in the interface, with its arguments as texts. `confirmed` as for
/// prepare.
int call(const Settings& settings, const std::string& name, const std::vector<std::string>& texts,
         bool confirmed);
/// The operations of call, one line each.
std::string operationList();

/// Takes the place of the media service and prints events until SIGINT, SIGTERM or SIGHUP.
int watch(const Settings& settings, std::int8_t observerId);

/// Checks of the system around the daemon. The findings of the checks in `ignored` are shown but do not
/// count.
int runDoctor(const Settings& settings, const std::vector<std::string>& ignored);

}  // namespace dockhandctl

#endif  // DOCKHANDCTL_COMMANDS_H
