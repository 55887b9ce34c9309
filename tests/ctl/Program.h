#ifndef TESTS_CTL_PROGRAM_H
#define TESTS_CTL_PROGRAM_H

#include <sys/types.h>

#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "FileDescriptor.h"

namespace ctltest {

using Arguments = std::vector<std::string>;

/// The outcome of a run of dockhandctl.
struct Outcome {
  int exitCode = -1;  ///< 128 and more: a signal ended it.
  std::string out;    ///< Standard output; on a terminal also standard error.
  std::string err;
};

inline void PrintTo(const Outcome& outcome, std::ostream* out) {
  *out << "exit code " << outcome.exitCode << ", output \"" << outcome.out << "\", errors \"" << outcome.err
       << '"';
}

/// How a run differs from the default.
struct RunOptions {
  std::map<std::string, std::string> environment;
  /// Standard input.
  std::string inputFile = "/dev/null";
  /// The file for standard output. Empty: it goes into the outcome.
  std::string outputFile{};
  /// All three streams are its own terminal.
  bool terminal = false;
  /// The terminal is stopped (Ctrl-S), so that the program waits at its first output.
  bool stopped = false;
  /// Runs as user and group 65534; needs root.
  bool asNobody = false;
};

/// A running dockhandctl. The destructor kills it unless wait() was called.
class Program {
 public:
  explicit Program(const Arguments& arguments, const RunOptions& options = {});
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;
  ~Program();

  /// Reads standard output or standard error until this text appears; returns all that was read. Throws
  /// std::runtime_error if the stream ends first.
  std::string readUntil(const std::string& text);
  std::string readErrorUntil(const std::string& text);
  /// Types on the program's terminal.
  void type(const std::string& text);
  void send(int signal) const;
  pid_t pid() const { return pid_; }
  /// Closes our end of its standard output.
  void stopReading() { out_.reset(); }
  /// Reads the streams to their end and waits for the program's end.
  Outcome wait();

 private:
  pid_t pid_ = -1;
  ravel::rpc::FileDescriptor out_;
  ravel::rpc::FileDescriptor err_;
  Outcome outcome_;
};

/// Orders this thread's accesses to the fake system with those of the service's threads, for ThreadSanitizer
/// too: it sees the order of data over sockets, but not over another process. Program calls it.
void exchangeAMessage();

/// Runs dockhandctl and waits for its end.
Outcome run(const Arguments& arguments, const RunOptions& options = {});

}  // namespace ctltest

#endif  // TESTS_CTL_PROGRAM_H
