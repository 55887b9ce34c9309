#ifndef DOCKHANDCTL_FAILURE_H
#define DOCKHANDCTL_FAILURE_H

#include <stdexcept>
#include <string>

namespace dockhandctl {

/// Exit codes. --help and the manual page list them, and scripts rely on them.
enum ExitCode {
  done = 0,                 ///< Done, or the answer is yes.
  answerIsNo = 1,           ///< The answer is no, or doctor has a warning or a problem.
  wrongUsage = 2,           ///< Wrong usage.
  noSuchDevice = 3,         ///< The daemon knows no such device.
  notReached = 4,           ///< The daemon cannot be reached.
  daemonFailed = 5,         ///< The daemon replied with a failure, or ended the connection.
  noReplyInTime = 6,        ///< The daemon did not reply in time.
  mediaServiceRunning = 7,  ///< A media service is running, so watch cannot take its place.
  notConfirmed = 8,         ///< Nobody confirmed that a disk may be wiped.
  ownFailure = 9            ///< Something failed on this side, such as writing the output.
};

/// Ends the program with a text on standard error and an exit code.
class Failure : public std::runtime_error {
 public:
  Failure(ExitCode exitCode, const std::string& text) : std::runtime_error(text), exitCode_(exitCode) {}

  ExitCode exitCode() const { return exitCode_; }

 private:
  ExitCode exitCode_;
};

}  // namespace dockhandctl

#endif  // DOCKHANDCTL_FAILURE_H
