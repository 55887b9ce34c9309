#ifndef DOCKHANDCTL_COMMANDS_H
#define DOCKHANDCTL_COMMANDS_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "DirectoryBounds.h"

/// The commands. Each writes its result to standard output and complaints to standard error. It returns the
/// exit code, or throws Failure. None keeps a connection to the daemon after its calls.
namespace dockhandctl {

/// Options that several commands take.
struct Settings {
  /// For connecting, and for each reply except those of prepare and repair.
  std::chrono::milliseconds timeout = std::chrono::seconds(30);
  /// Print JSON instead of text for people.
  bool json = false;
  /// How much of one directory the daemon reads, for the command files.
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

/// An empty `directory` means the daemon's own choice. If the device is open at another directory, it is
/// opened only if `again` is true.
int open(const Settings& settings, std::int16_t device, const std::string& directory, bool pvr, bool again);
int close(const Settings& settings, std::int16_t device, bool safe);
int rescan(const Settings& settings);
/// `event` is added, removed, xrite-added or xrite-removed; `name` belongs to the first two.
int notify(const Settings& settings, const std::string& event, const std::string& name);
/// `action` is add or remove, `event` added or removed.
int observer(const Settings& settings, const std::string& action, const std::string& event,
             std::int8_t observerId, std::int32_t value);

// Maintenance. These wait for the daemon without a limit.

/// Wipes a disk. Asks at the terminal first, unless `confirmed` is true.
int prepare(const Settings& settings, std::int16_t device, bool confirmed);
int repair(const Settings& settings, std::int16_t device);

/// Shows the disk and asks whether to wipe it. Throws Failure (notConfirmed) unless the answer is yes.
void confirmWiping(const Settings& settings, std::int16_t device);

// Everything else.

/// Calls an operation by its name in the interface, with its arguments as texts. `confirmed` as for prepare.
int call(const Settings& settings, const std::string& name, const std::vector<std::string>& texts,
         bool confirmed);
/// All operations with their parameters, one a line.
std::string operationList();

/// Takes the place of the media service and prints events until SIGINT, SIGTERM or SIGHUP.
int watch(const Settings& settings, std::int8_t observerId);

/// Checks the system around the daemon. Findings of the checks in `ignored` are printed, but do not change
/// the exit code.
int runDoctor(const Settings& settings, const std::vector<std::string>& ignored);

}  // namespace dockhandctl

#endif  // DOCKHANDCTL_COMMANDS_H
