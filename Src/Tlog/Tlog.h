#ifndef TLOG_TLOG_H
#define TLOG_TLOG_H

#include <atomic>
#include <cstdint>
#include <string>
#include <utility>

/// The logging library: lines with a level, each belonging to a context with a threshold.
///
/// Levels: 1 stack dumps, 2 trace and progress, 3 notices, 4 warnings, 5 errors. The caller compares a line's
/// level with the context's threshold before it composes the text; the library writes whatever it is handed.
///
/// A line is written by one system call to the target that TLOG_TARGET names:
///
///     stderr    TIMESTAMP THREADID LEVEL CONTEXT FILE:LINE TEXT
///
/// with single blanks, an ISO 8601 UTC timestamp with microseconds, the kernel's thread number, and "-" for a
/// missing context. When standard error is the journal (JOURNAL_STREAM names it), the line goes to the
/// journal's own socket, with a priority and without the timestamp; if that fails, to standard error.
/// `syslog` sends the line without its timestamp to syslog(3). Default: stderr.
///
/// Control characters of the text, and characters that turn text round, are written \xHH for each of their
/// bytes, so that a text from outside (a volume label) can neither end the line, nor drive a terminal, nor
/// look like another line.
///
/// TLOG_LEVEL sets thresholds: `3` for all contexts, or `3,Dockhand.UsbClient=2` with exceptions, or
/// exceptions only. Thresholds are 1 (everything) to 6 (nothing at all); names in it consist of ASCII
/// letters, digits and `.`, `_`, `-`, `:`. Default: 3. A bad value of either variable, also one that names a
/// context or the general threshold twice, is reported once on standard error and the default used for the
/// whole variable. An empty variable counts as absent.
///
/// Threads: every operation may be called from any thread, GetLogContext also before main. Lines of several
/// threads never mix: a mutex is held while one is written, so a writer waits as long as its target keeps it
/// waiting. Not for signal handlers. A line that cannot be written is lost. One that finds no memory is
/// written with a fixed text in place of its own; no exception leaves an operation for that.

/// A named source of log lines. Lives until the process ends.
class TlogContext {
 public:
  static constexpr std::int32_t defaultThreshold = 3;

  /// The context called `name`, made at the first call with that name. `file` and `line` say where the caller
  /// asked for it. Never null in this implementation, but callers treat null as "let everything through".
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

/// Reads TLOG_TARGET and TLOG_LEVEL and applies them to every context, also to those made later; replaces
/// what setThreshold did. Called once, first thing in main; lines written before it go to standard error.
///
/// Makes the process independent of two settings that it inherits. SIGPIPE is ignored from here on, or a line
/// would end the process when the reader of standard error has gone; a write to a socket that is closed fails
/// instead, too. SIGCHLD has its default, or system(3) would take every command for failed. No handler is
/// installed.
///
/// Programs that are started inherit the ignored SIGPIPE, as they do from every unit of systemd. For a
/// pipeline of the shell it means that a writer whose reader has gone gets an error instead of the signal;
/// its result is that of the last program either way. And `logger -s` still reaches syslog when it cannot
/// write to standard error.
void TlogInit();

/// Writes one line. `context` may be null. `file` and `line` name the call site. Leaves errno as it was.
void TlogPrintf(const TlogContext* context, int level, const char* file, int line, const char* format, ...)
    __attribute__((format(printf, 5, 6)));

/// Writes the calling thread's stack, one line of level 1 a frame, with function names where the program
/// exports them (link it with -rdynamic). No other thread's line comes between them. Leaves errno as it was.
void TlogStackTrace();

#endif  // TLOG_TLOG_H
