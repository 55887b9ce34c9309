#ifndef DOCKHANDCTL_DOCTOR_MACHINE_H
#define DOCKHANDCTL_DOCTOR_MACHINE_H

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace dockhandctl::doctor {

/// How a command ended.
struct CommandResult {
  int status = 0;      ///< Exit status; 127: no such program; 128 and more: ended by a signal.
  std::string output;  ///< Standard output and standard error.
};

/// All that the checks know about the system, so that a test can replace it.
struct Machine {
  /// Put before every absolute path that a check looks at. Empty: the system itself.
  std::string root;
  /// Path of the daemon's socket, without the root.
  std::string socket;
  /// The expected owner of the socket, its directory and the log file.
  uid_t owner = 0;
  /// The process that serves the socket; 0 if unknown.
  pid_t daemon = 0;
  /// The errno of connecting to the socket; 0 if it is served.
  int connectionError = 0;
  /// The folders where the daemon finds its tools, without the root.
  std::vector<std::string> path;
  /// Whether `path` is the daemon's own, and why not.
  bool pathIsDaemons = true;
  std::string reasonForOtherPath;
  /// The daemon's DOCKHAND_MOUNTS: empty without it, no value if the daemon's environment cannot be read.
  std::optional<std::string> mountPolicy;
  std::string kernelRelease;

  /// Looks a program up in `path` and runs it to its end, with an empty input.
  std::function<CommandResult(const std::vector<std::string>&)> run;
  /// Takes a path with the root. True if it is on a file system that is mounted read-only.
  std::function<bool(const std::string&)> isOnReadOnlyFileSystem;
  /// Takes a path with the root. True if it is, or leads to, a block device.
  std::function<bool(const std::string&)> isBlockDevice;

  /// The content of a file; no value if it cannot be read.
  std::optional<std::string> read(const std::string& file) const;
  /// The file of a program in `path`, without the root; empty if there is none.
  std::string find(const std::string& program) const;
};

/// The machine of this process. Connects to the daemon once, to learn its process id.
Machine thisMachine();

/// Folders of a PATH.
std::vector<std::string> splitPath(const std::string& text);

}  // namespace dockhandctl::doctor

#endif  // DOCKHANDCTL_DOCTOR_MACHINE_H
