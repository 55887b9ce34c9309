#ifndef DOCKHAND_TESTS_SYSTEM_DAEMON_H
#define DOCKHAND_TESTS_SYSTEM_DAEMON_H

#include <sys/types.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "UsbClient.h"

namespace systest {

/// Variables for the daemon's environment, which otherwise is that of the test.
using Environment = std::map<std::string, std::string>;

using testsupport::UsbClient;

/// A running daemon, killed with this object. Its tools are in a process group that has its pid.
class Daemon {
 public:
  /// Starts the program, as root and in this group alone, and returns once it answers calls. Throws when it
  /// ends instead, or does not answer for long.
  explicit Daemon(const Environment& environment = {}, gid_t group = getgid());
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;
  ~Daemon();

  pid_t pid() const { return pid_; }
  bool isRunning() const;
  /// Ends it with SIGKILL, so that it can clean up nothing.
  void kill();

  /// What it has written to standard error.
  std::string log() const;
  /// The same by lines.
  std::vector<std::string> logLines() const;

 private:
  pid_t pid_ = -1;
  std::string logPath_;
  bool reaped_ = false;
};

/// The end of a daemon that could not start.
struct FailedStart {
  /// As waitpid tells it; 0 would be success.
  int status = 0;
  std::string log;
};

/// Starts the program and waits for its end, which is to come by itself. Throws when it does not.
FailedStart startThatFails(const Environment& environment = {});

}  // namespace systest

#endif  // DOCKHAND_TESTS_SYSTEM_DAEMON_H
