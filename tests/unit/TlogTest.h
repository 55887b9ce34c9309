#ifndef TESTS_UNIT_TLOGTEST_H
#define TESTS_UNIT_TLOGTEST_H

#include <fcntl.h>
#include <gmock/gmock.h>
#include <regex.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include "Tlog.h"

inline void require(bool condition, const char* what) {
  if (!condition) {
    throw std::system_error(errno, std::generic_category(), what);
  }
}

inline std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

inline bool matches(const std::string& text, const std::string& pattern) {
  regex_t compiled{};
  require(regcomp(&compiled, ('^' + pattern + '$').c_str(), REG_EXTENDED | REG_NOSUB) == 0, "regcomp");
  const bool matched = regexec(&compiled, text.c_str(), 0, nullptr, 0) == 0;
  regfree(&compiled);
  return matched;
}

/// Exactly one line, which matches a POSIX extended regular expression.
MATCHER_P(IsOneLine, pattern, "") {
  return !arg.empty() && arg.find('\n') == arg.size() - 1 && matches(arg.substr(0, arg.size() - 1), pattern);
}

/// Redirects standard error while it lives.
class RedirectedStandardError {
 public:
  explicit RedirectedStandardError(int target) : saved_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)) {
    require(saved_ >= 0 && dup2(target, STDERR_FILENO) >= 0, "redirect standard error");
  }
  ~RedirectedStandardError() {
    dup2(saved_, STDERR_FILENO);
    close(saved_);
  }
  RedirectedStandardError(const RedirectedStandardError&) = delete;
  RedirectedStandardError& operator=(const RedirectedStandardError&) = delete;

 private:
  const int saved_;
};

/// While it lives, this thread can allocate this many pieces of memory, and no more.
class MemoryShortage {
 public:
  explicit MemoryShortage(int pieces) {
    piecesLeft_ = pieces;
    happened_ = false;
  }
  ~MemoryShortage() { piecesLeft_ = -1; }
  MemoryShortage(const MemoryShortage&) = delete;
  MemoryShortage& operator=(const MemoryShortage&) = delete;

  static bool happened() { return happened_; }
  /// Called for each allocation.
  static bool isNow() {
    if (piecesLeft_ != 0) {
      piecesLeft_ -= piecesLeft_ > 0 ? 1 : 0;
      return false;
    }
    happened_ = true;
    return true;
  }

 private:
  static inline thread_local int piecesLeft_ = -1;
  static inline thread_local bool happened_ = false;
};

/// The real logging library, without its environment variables.
class Tlog : public testing::Test {
 protected:
  Tlog() { reset(); }
  ~Tlog() override { reset(); }

  static void reset() {
    unsetenv("TLOG_TARGET");
    unsetenv("TLOG_LEVEL");
    unsetenv("JOURNAL_STREAM");
    TlogInit();
  }

  static void initWith(const char* variable, const std::string& value) {
    require(setenv(variable, value.c_str(), 1) == 0, "setenv");
    TlogInit();
  }

  TlogContext* const context_ = TlogContext::GetLogContext("Test.Context", "tests/unit/TlogTest", 2);
};

#endif  // TESTS_UNIT_TLOGTEST_H
