#ifndef TLOG_TLOG_LINE_H
#define TLOG_TLOG_LINE_H

#include <sys/types.h>

#include <cstdarg>
#include <ctime>
#include <string>
#include <string_view>

/// How a log line is made up; part of the library, not of its interface. The functions keep no state and may
/// be called from any thread.
namespace tlog {

/// printf's formatting, of any length. A format that vsnprintf refuses is itself returned, with a remark.
std::string formatText(const char* format, va_list arguments) __attribute__((format(printf, 1, 0)));

/// The text with its control characters (C0, DEL, and C1 in UTF-8) written \xHH, byte by byte. All other
/// bytes stay, also backslashes and what is no valid UTF-8.
std::string escapeControlCharacters(std::string_view text);

/// "THREADID LEVEL CONTEXT FILE:LINE TEXT", the part that all targets share, without a line end. Null for
/// `context` or `file` becomes "-".
std::string composeLine(pid_t threadId, int level, const char* context, const char* file, int line,
                        std::string_view text);

/// The priority of syslog(3) for a level: debug, notice, warning or error.
int syslogPriority(int level);

/// ISO 8601, UTC, microseconds.
std::string formatTimestamp(const std::timespec& time);

}  // namespace tlog

#endif  // TLOG_TLOG_LINE_H
