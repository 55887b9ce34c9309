#ifndef DOCKHAND_SHELL_H
#define DOCKHAND_SHELL_H

#include <string>

#include "Platform.h"

namespace Dockhand {

/// Runs the tools that change disks, and keeps their output.
///
/// Threads: any, without a lock.
class Shell {
 public:
  /// `platform` must outlive this object.
  explicit Shell(Platform& platform) : platform_(platform) {}

  /// Runs a command line (without redirections) in the shell, with its output in /tmp/Dockhand.log. Passes
  /// that file to the system log if the command fails, with `passLogAlways` also if it succeeds. `sourceLine`
  /// tells readers of the log which step ran it. Returns the raw status of system(): 0 is success. If the
  /// file cannot be claimed, the command does not run: the status is -1, as for a failed fork, and `*wasRun`
  /// (if not null) is false.
  int run(const std::string& command, int sourceLine, bool passLogAlways, bool* wasRun = nullptr) const;
  /// Claims a file in /tmp before the shell writes to it. False, with a log line, if that fails: then the
  /// command must not run.
  bool claim(const std::string& file) const;
  /// Unmounts a node by force, at most ten times, to remove stacked mounts. Logs each success with `occasion`
  /// and `sourceLine`.
  void forceUnmount(const std::string& node, int sourceLine, const char* occasion) const;

 private:
  Platform& platform_;
};

}  // namespace Dockhand

#endif  // DOCKHAND_SHELL_H
