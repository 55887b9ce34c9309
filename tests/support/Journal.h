#ifndef TESTS_SUPPORT_JOURNAL_H
#define TESTS_SUPPORT_JOURNAL_H

#include <functional>
#include <mutex>
#include <string>
#include <vector>

/// One log line, with the arguments that the handler passes to the logging library.
struct LoggedLine {
  int level;
  /// Name of the context, "-" without one.
  std::string context;
  std::string sourceFile;
  int sourceLine;
  std::string text;
};

/// Everything that the code under test does, in order: its calls to the system, log lines and callbacks.
///
/// Each event is a text. Log lines read "log LEVEL @LINE TEXT". FakePlatform lists the forms of the other
/// events.
class Journal {
 public:
  void record(const std::string& event);
  void record(const LoggedLine& line);
  void clear();

  /// All events.
  std::vector<std::string> events() const;
  /// Only the log lines, in the form of events.
  std::vector<std::string> logs() const;
  /// All events except the log lines.
  std::vector<std::string> calls() const;
  /// The events that begin with a text.
  std::vector<std::string> eventsBeginning(const std::string& beginning) const;
  std::vector<LoggedLine> lines() const;

  /// Called after each log line is recorded.
  std::function<void(const LoggedLine&)> onLine;

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> events_;
  std::vector<LoggedLine> lines_;
};

/// The journal of the running test.
Journal& journal();

#endif  // TESTS_SUPPORT_JOURNAL_H
