#ifndef TLOG_TLOG_LINE_H
#define TLOG_TLOG_LINE_H

#include <sys/types.h>

#include <array>
#include <cstdarg>
#include <ctime>
#include <string>
#include <string_view>

/// How a log line is made up; part of the library, not of its interface. The functions keep no state and may
/// be called from any thread.
namespace tlog {

/// printf's formatting, of any length. A format that vsnprintf refuses is itself returned, with a remark.
std::string formatText(const char* format, va_list arguments) __attribute__((format(printf, 1, 0)));

/// The text with its control characters (C0, DEL and C1) and the characters that turn text round (U+202A to
/// U+202E, U+2066 to U+2069) written \xHH, byte by byte. Bytes that belong to no character in UTF-8 are taken
/// one by one for the character of their number, so 0x80 to 0x9F are escaped as C1. All other bytes stay,
/// also backslashes.
std::string escapeControlCharacters(std::string_view text);

/// "THREADID LEVEL CONTEXT FILE:LINE TEXT", the part that all targets share, without a line end. Null for
/// `context` or `file` becomes "-".
std::string composeLine(pid_t threadId, int level, const char* context, const char* file, int line,
                        std::string_view text);

/// The priority of syslog(3) for a level: debug, notice, warning or error.
int syslogPriority(int level);

/// With room for the zero at its end and for a year of five digits.
using Timestamp = std::array<char, 32>;

/// ISO 8601, UTC, microseconds. Needs no memory.
Timestamp formatTimestamp(const std::timespec& time);

}  // namespace tlog

#endif  // TLOG_TLOG_LINE_H
