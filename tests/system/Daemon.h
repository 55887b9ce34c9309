#ifndef DOCKHAND_TESTS_SYSTEM_DAEMON_H
#define DOCKHAND_TESTS_SYSTEM_DAEMON_H

#include <sys/types.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "UsbClient.h"

namespace systest {

/// Variables that are added to the test's environment for the daemon.
using Environment = std::map<std::string, std::string>;

/// A PATH with the test's tools in /tmp/bin before the system's.
Environment withTools();
/// The same, with the image's wrappers before both.
Environment withImageTools();

using testsupport::UsbClient;

/// A running daemon, killed with this object. The process group of its tools has its pid.
class Daemon {
 public:
  /// Starts the program, as root and in this group only, and returns once it replies to calls. Throws if it
  /// ends, or does not reply for a long time.
  explicit Daemon(const Environment& environment = {}, gid_t group = getgid());
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;
  ~Daemon();

  pid_t pid() const { return pid_; }
  bool isRunning() const;
  /// Ends it with SIGKILL, so that it cannot clean up.
  void kill();

  /// Its output on standard error.
  std::string log() const;
  /// The same as lines.
  std::vector<std::string> logLines() const;

 private:
  pid_t pid_ = -1;
  std::string logPath_;
  bool reaped_ = false;
};

/// The end of a daemon that could not start.
struct FailedStart {
  /// As waitpid returns it; 0 would be success.
  int status = 0;
  std::string log;
};

/// Starts the program and waits until it ends by itself. Throws if it does not.
FailedStart startThatFails(const Environment& environment = {});

}  // namespace systest

#endif  // DOCKHAND_TESTS_SYSTEM_DAEMON_H
