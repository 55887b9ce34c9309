#ifndef DOCKHANDCTL_FAILURE_H
#define DOCKHANDCTL_FAILURE_H

#include <stdexcept>
#include <string>

namespace dockhandctl {

/// How the program ends. The numbers are documented in --help and in the manual page, and scripts rely on
/// them.
enum ExitCode {
  done = 0,               ///< Done, or the answer is yes.
  answerIsNo = 1,         ///< The answer is no, or there is something to mend (doctor).
  wrongUsage = 2,         ///< Wrong usage.
  noSuchDevice = 3,       ///< The daemon knows no such device.
  notReached = 4,         ///< The daemon cannot be reached.
  daemonFailed = 5,       ///< The daemon answered with a failure, or ended the connection.
  noAnswerInTime = 6,     ///< The daemon did not answer in time.
  mediaServiceThere = 7,  ///< A media service is there, so watch cannot take its place.
  notConfirmed = 8,       ///< Nobody confirmed that a disk may be wiped.
  ownFailure = 9          ///< Something failed on this side: output that cannot be written, for instance.
};

/// What ends the program early: the text for standard error, and the exit code.
class Failure : public std::runtime_error {
 public:
  Failure(ExitCode exitCode, const std::string& text) : std::runtime_error(text), exitCode_(exitCode) {}

  ExitCode exitCode() const { return exitCode_; }

 private:
  ExitCode exitCode_;
};

}  // namespace dockhandctl

#endif  // DOCKHANDCTL_FAILURE_H
