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

/// How a run of dockhandctl ended.
struct Outcome {
  int exitCode = -1;  ///< 128 and more: ended by a signal.
  std::string out;    ///< All of standard output, and on a terminal standard error as well.
  std::string err;
};

inline void PrintTo(const Outcome& outcome, std::ostream* out) {
  *out << "exit code " << outcome.exitCode << ", output \"" << outcome.out << "\", errors \"" << outcome.err
       << '"';
}

/// What a run differs in from the usual one.
struct RunOptions {
  std::map<std::string, std::string> environment;
  /// Standard input.
  std::string inputFile = "/dev/null";
  /// Standard output; empty: it is kept for the outcome.
  std::string outputFile{};
  /// On a terminal of its own, with all three streams.
  bool terminal = false;
  /// That terminal was stopped (Ctrl-S), so that the program waits at the first text that it prints.
  bool stopped = false;
  /// As user and group 65534, which takes root.
  bool asNobody = false;
};

/// A running dockhandctl. Killed with this object unless it was waited for.
class Program {
 public:
  explicit Program(const Arguments& arguments, const RunOptions& options = {});
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;
  ~Program();

  /// Reads standard output, or standard error, until this text has appeared, and returns what was read so
  /// far. Throws std::runtime_error when the stream ends before.
  std::string readUntil(const std::string& text);
  std::string readErrorUntil(const std::string& text);
  /// Types on its terminal.
  void type(const std::string& text);
  void send(int signal) const;
  pid_t pid() const { return pid_; }
  /// Closes our end of its standard output.
  void stopReading() { out_.reset(); }
  /// Reads to the end of the streams and waits for the program's end.
  Outcome wait();

 private:
  pid_t pid_ = -1;
  ravel::rpc::FileDescriptor out_;
  ravel::rpc::FileDescriptor err_;
  Outcome outcome_;
};

/// Puts what this thread did to the fake system in order with what the service's threads did, also for
/// ThreadSanitizer: it takes whatever goes over sockets for an order, but cannot see what goes through
/// another process. Program does it by itself.
void exchangeAMessage();

/// Runs dockhandctl to its end.
Outcome run(const Arguments& arguments, const RunOptions& options = {});

}  // namespace ctltest

#endif  // TESTS_CTL_PROGRAM_H
