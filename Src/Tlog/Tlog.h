#ifndef TLOG_TLOG_H
#define TLOG_TLOG_H

#include <atomic>
#include <cstdint>
#include <string>
#include <utility>

/// The logging library. A line has a level and belongs to a context, which has a threshold.
///
/// Levels: 1 stack dumps, 2 trace and progress, 3 notices, 4 warnings, 5 errors. The caller compares a line's
/// level with the context's threshold before it composes the text; the library writes every line that it
/// gets.
///
/// One system call writes a line to the target that TLOG_TARGET names:
///
///     stderr    TIMESTAMP THREADID LEVEL CONTEXT FILE:LINE TEXT
///
/// with single blanks, an ISO 8601 UTC timestamp with microseconds, the kernel's thread number, and "-" for a
/// missing context. If standard error is the journal (JOURNAL_STREAM names it), the line goes to the
/// journal's own socket, with a priority and without the timestamp; if that fails, to standard error.
/// `syslog` sends the line without its timestamp to syslog(3). Default: stderr.
///
/// Each byte of a control character, and of a character that changes the direction of text, is written \xHH.
/// So a text from outside (a volume label) cannot end the line, control a terminal, or look like another
/// line.
///
/// TLOG_LEVEL sets thresholds: `3` for all contexts, or `3,Dockhand.UsbClient=2` with exceptions, or
/// exceptions only. Thresholds are 1 (everything) to 6 (nothing). Names of contexts have ASCII letters,
/// digits and `.`, `_`, `-`, `:`. Default: 3. A bad value of either variable is reported once on standard
/// error, and the default is used for the whole variable. A value that names a context or the general
/// threshold twice is bad. An empty variable counts as absent.
///
/// A line that cannot be written is lost. If there is no memory for a line, it is written with a fixed text,
/// and no operation throws.
///
/// Locks: a mutex is held while a line is written, so lines of several threads never mix. A writer waits as
/// long as its target blocks. Threads: any, GetLogContext also before main. Not for signal handlers.

/// A named source of log lines. Lives until the process ends.
class TlogContext {
 public:
  static constexpr std::int32_t defaultThreshold = 3;

  /// The context with this name, made by the first call with it. `file` and `line` name the call site. Never
  /// null in this implementation, but callers treat null as "let everything through".
  static TlogContext* GetLogContext(const char* name, const char* file, int line);

  explicit TlogContext(std::string contextName) : contextName_(std::move(contextName)) {}
  TlogContext(const TlogContext&) = delete;
  TlogContext& operator=(const TlogContext&) = delete;

  const std::string& name() const { return contextName_; }

  /// Lines below this level are not wanted.
  std::int32_t threshold() const { return threshold_.load(std::memory_order_relaxed); }
  void setThreshold(std::int32_t level) { threshold_.store(level, std::memory_order_relaxed); }

 private:
  const std::string contextName_;
  std::atomic<std::int32_t> threshold_{defaultThreshold};
};

/// Reads TLOG_TARGET and TLOG_LEVEL and applies them to every context, also to those made later. Replaces
/// what setThreshold did. Call it once, first in main; lines that are written before it go to standard error.
///
/// Replaces two settings that the process inherits, and installs no handler:
/// - SIGPIPE is ignored. Otherwise a line would end the process once the reader of standard error has gone. A
///   write to a closed socket fails, too, and does not end the process.
/// - SIGCHLD gets its default. Otherwise system(3) would report every command as failed.
///
/// Programs that are started inherit the ignored SIGPIPE, as they do from every unit of systemd. In a
/// pipeline of the shell, a writer whose reader has gone gets an error and not the signal. The result of the
/// pipeline is still that of its last program. `logger -s` still reaches syslog if it cannot write to
/// standard error.
void TlogInit();

/// Writes one line. `context` may be null. `file` and `line` name the call site. Keeps errno.
void TlogPrintf(const TlogContext* context, int level, const char* file, int line, const char* format, ...)
    __attribute__((format(printf, 5, 6)));

/// Writes the calling thread's stack, one line of level 1 for each frame. Functions have names if the program
/// exports them (link it with -rdynamic). No other thread's line comes between them. Keeps errno.
void TlogStackTrace();

#endif  // TLOG_TLOG_H
