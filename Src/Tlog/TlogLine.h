#ifndef TLOG_TLOG_LINE_H
#define TLOG_TLOG_LINE_H

#include <sys/types.h>

#include <array>
#include <cstdarg>
#include <ctime>
#include <string>
#include <string_view>

/// The format of a log line; part of the library, not of its interface. Threads: any; the functions keep no
/// state.
namespace tlog {

/// Formats as printf does, with any length. If vsnprintf refuses the format, returns the format with a
/// remark.
std::string formatText(const char* format, va_list arguments) __attribute__((format(printf, 1, 0)));

/// Writes \xHH for each byte of a control character (C0, DEL and C1), and of a character that changes the
/// direction of text (U+202A to U+202E, U+2066 to U+2069). A byte that is not valid UTF-8 counts as the
/// character with its number, so 0x80 to 0x9F are escaped as C1. All other bytes stay, also backslashes.
std::string escapeControlCharacters(std::string_view text);

/// "THREADID LEVEL CONTEXT FILE:LINE TEXT", the part that all targets share, without a line end. Null for
/// `context` or `file` becomes "-".
std::string composeLine(pid_t threadId, int level, const char* context, const char* file, int line,
                        std::string_view text);

/// The priority of syslog(3) for a level: debug, notice, warning or error.
int syslogPriority(int level);

/// Has room for the NUL byte at its end and for a year of five digits.
using Timestamp = std::array<char, 32>;

/// Formats a time as ISO 8601, in UTC, with microseconds. Allocates no memory.
Timestamp formatTimestamp(const std::timespec& time);

}  // namespace tlog

#endif  // TLOG_TLOG_LINE_H
