#include "Tlog.h"

#include <poll.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <boost/stacktrace.hpp>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "TlogJournal.h"
#include "TlogLine.h"
#include "TlogSettings.h"

namespace {

constexpr const char* thisFile = "Src/Tlog/Tlog";

struct Registry {
  std::mutex mutex;
  std::map<std::string, TlogContext> contexts;
  tlog::Thresholds thresholds;
};

// Made at the first use and never destroyed: constructors of static objects ask for contexts before main, and
// destructors log after it.
Registry& registry() {
  static auto* const instance = new Registry;
  return *instance;
}

struct Output {
  std::mutex mutex;
  tlog::Target target = tlog::Target::standardError;
  std::unique_ptr<const tlog::Journal> journal = tlog::Journal::ofStandardError();
};

Output& output() {
  static auto* const instance = new Output;
  return *instance;
}

// Callers log between a failed call and their use of errno.
class ErrnoKeeper {
 public:
  ErrnoKeeper() = default;
  ~ErrnoKeeper() { errno = saved_; }
  ErrnoKeeper(const ErrnoKeeper&) = delete;
  ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

 private:
  const int saved_ = errno;
};

void writeAll(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = write(STDERR_FILENO, bytes.data(), bytes.size());
    if (written >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno == EAGAIN) {
      // A process that shares our standard error made it non-blocking. Half a line would spoil the next one.
      pollfd writable{STDERR_FILENO, POLLOUT, 0};
      poll(&writable, 1, -1);
    } else if (errno != EINTR) {
      // There is nowhere to report that the log cannot be written.
      return;
    }
  }
}

// Call the functions below that take an Output with its mutex held.

// False if the journal cannot be reached; the caller then writes to standard error.
bool sendToJournal(const Output& out, int level, std::string_view line) {
  return out.journal != nullptr && out.journal->send(tlog::syslogPriority(level), line);
}

tlog::Timestamp timestampOfNow() {
  std::timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return tlog::formatTimestamp(now);
}

void writeToStandardError(const Output& out, int level, const std::string& line) {
  if (!sendToJournal(out, level, line)) {
    writeAll(std::string(timestampOfNow().data()) + ' ' + line + '\n');
  }
}

void writeLine(const Output& out, int level, const std::string& line) {
  if (out.target == tlog::Target::syslog) {
    syslog(tlog::syslogPriority(level), "%s", line.c_str());
  } else {
    writeToStandardError(out, level, line);
  }
}

// Writes a line without its text, and allocates no memory.
void writeWithoutText(const Output& out, const TlogContext* context, int level, const char* file, int line) {
  const char* const name = context != nullptr ? context->name().c_str() : "-";
  std::array<char, 400> text{};
  std::snprintf(text.data(), text.size(), "%d %d %s %s:%d (no memory for the text of this line)", gettid(),
                level, name, file != nullptr ? file : "-", line);
  if (out.target == tlog::Target::syslog) {
    syslog(tlog::syslogPriority(level), "%s", text.data());
  } else if (!sendToJournal(out, level, text.data())) {
    std::array<char, text.size() + std::tuple_size_v<tlog::Timestamp> + 2> whole{};
    std::snprintf(whole.data(), whole.size(), "%s %s\n", timestampOfNow().data(), text.data());
    writeAll(whole.data());
  }
}

// Writes to standard error for any target: a wrong setting is for the person who starts the program.
void reportBadValue(const Output& out, const char* variable, const char* value, const char* used) {
  constexpr int warning = 4;
  const std::string text =
      std::string(variable) + ": bad value \"" + value + "\", using the default, " + used;
  writeToStandardError(out, warning, tlog::composeLine(gettid(), warning, nullptr, thisFile, __LINE__, text));
}

const char* valueOf(const char* variable) {
  const char* const value = std::getenv(variable);
  return value != nullptr ? value : "";
}

void initTarget(Output& out) {
  const char* const value = valueOf("TLOG_TARGET");
  const auto target = tlog::parseTarget(value);
  out.target = target.value_or(tlog::Target::standardError);
  if (!target && *value != '\0') {
    reportBadValue(out, "TLOG_TARGET", value, "stderr");
  }
  if (out.target == tlog::Target::syslog) {
    openlog("Dockhand", LOG_PID, LOG_DAEMON);
  }
}

tlog::Thresholds readThresholds(const Output& out) {
  const char* const value = valueOf("TLOG_LEVEL");
  const auto thresholds = tlog::parseThresholds(value);
  if (!thresholds && *value != '\0') {
    const std::string used = std::to_string(TlogContext::defaultThreshold);
    reportBadValue(out, "TLOG_LEVEL", value, used.c_str());
  }
  return thresholds.value_or(tlog::Thresholds());
}

void applyThresholds(tlog::Thresholds thresholds) {
  Registry& known = registry();
  const std::lock_guard<std::mutex> lock(known.mutex);
  known.thresholds = std::move(thresholds);
  for (auto& [name, context] : known.contexts) {
    context.setThreshold(known.thresholds.of(name));
  }
}

}  // namespace

TlogContext* TlogContext::GetLogContext(const char* name, const char* /*file*/, int /*line*/) {
  Registry& known = registry();
  const std::lock_guard<std::mutex> lock(known.mutex);
  const auto [entry, isNew] = known.contexts.try_emplace(name, name);
  TlogContext& context = entry->second;
  if (isNew) {
    context.setThreshold(known.thresholds.of(context.name()));
  }
  return &context;
}

void TlogInit() {
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGCHLD, SIG_DFL);
  Output& out = output();
  const std::lock_guard<std::mutex> lock(out.mutex);
  out.journal = tlog::Journal::ofStandardError();
  initTarget(out);
  applyThresholds(readThresholds(out));
}

void TlogPrintf(const TlogContext* context, int level, const char* file, int line, const char* format, ...) {
  const ErrnoKeeper keeper;
  Output& out = output();
  va_list arguments;
  va_start(arguments, format);
  try {
    const std::string text = tlog::formatText(format, arguments);
    const char* const contextName = context != nullptr ? context->name().c_str() : nullptr;
    const std::string composed = tlog::composeLine(gettid(), level, contextName, file, line, text);
    const std::lock_guard<std::mutex> lock(out.mutex);
    writeLine(out, level, composed);
  } catch (const std::bad_alloc&) {
    const std::lock_guard<std::mutex> lock(out.mutex);
    writeWithoutText(out, context, level, file, line);
  }
  va_end(arguments);
}

void TlogStackTrace() {
  const ErrnoKeeper keeper;
  constexpr int stackDump = 1;
  Output& out = output();
  try {
    // Look up names before taking the lock: that is slow, and other threads want to log.
    std::vector<std::string> lines;
    for (const auto& frame : boost::stacktrace::stacktrace()) {
      const std::string text = std::to_string(lines.size()) + "# " + boost::stacktrace::to_string(frame);
      lines.push_back(tlog::composeLine(gettid(), stackDump, nullptr, thisFile, __LINE__, text));
    }
    const std::lock_guard<std::mutex> lock(out.mutex);
    for (const std::string& line : lines) {
      writeLine(out, stackDump, line);
    }
  } catch (const std::bad_alloc&) {
    const std::lock_guard<std::mutex> lock(out.mutex);
    writeWithoutText(out, nullptr, stackDump, thisFile, __LINE__);
  }
}
