#include "TlogLine.h"

#include <syslog.h>

#include <boost/locale/utf.hpp>
#include <cstddef>
#include <cstdio>

namespace tlog {
namespace {

void appendEscaped(std::string& text, unsigned char byte) {
  constexpr std::string_view digits = "0123456789abcdef";
  text += "\\x";
  text += digits[byte >> 4U];
  text += digits[byte & 0x0fU];
}

bool isEscaped(char32_t character) {
  const bool isControl = character < 0x20 || (character >= 0x7f && character <= 0x9f);
  const bool changesDirection =
      (character >= 0x202a && character <= 0x202e) || (character >= 0x2066 && character <= 0x2069);
  return isControl || changesDirection;
}

}  // namespace

std::string formatText(const char* format, va_list arguments) {
  va_list measured;
  va_copy(measured, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, measured);
  va_end(measured);
  if (length < 0) {
    return std::string("(cannot be formatted) ") + format;
  }
  std::string text(static_cast<std::size_t>(length), '\0');
  std::vsnprintf(text.data(), text.size() + 1, format, arguments);
  return text;
}

std::string escapeControlCharacters(std::string_view text) {
  namespace utf = boost::locale::utf;

  std::string escaped;
  escaped.reserve(text.size());
  for (const char* position = text.begin(); position != text.end();) {
    const char* const begin = position;
    utf::code_point character = utf::utf_traits<char>::decode(position, text.end());
    if (!utf::is_valid_codepoint(character)) {
      // A byte that is not valid UTF-8. An 8-bit terminal takes it for the character with this number.
      character = static_cast<unsigned char>(*begin);
      position = begin + 1;
    }
    for (const char* byte = begin; byte != position; ++byte) {
      if (isEscaped(character)) {
        appendEscaped(escaped, static_cast<unsigned char>(*byte));
      } else {
        escaped += *byte;
      }
    }
  }
  return escaped;
}

std::string composeLine(pid_t threadId, int level, const char* context, const char* file, int line,
                        std::string_view text) {
  std::string composed = std::to_string(threadId) + ' ' + std::to_string(level) + ' ';
  composed += context != nullptr ? context : "-";
  composed += ' ';
  composed += file != nullptr ? file : "-";
  composed += ':' + std::to_string(line) + ' ';
  composed += escapeControlCharacters(text);
  return composed;
}

int syslogPriority(int level) {
  if (level <= 2) {
    return LOG_DEBUG;
  }
  if (level == 3) {
    return LOG_NOTICE;
  }
  if (level == 4) {
    return LOG_WARNING;
  }
  return LOG_ERR;
}

Timestamp formatTimestamp(const std::timespec& time) {
  std::tm utc{};
  gmtime_r(&time.tv_sec, &utc);
  Timestamp text{};
  const std::size_t seconds = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &utc);
  std::snprintf(text.data() + seconds, text.size() - seconds, ".%06ldZ",
                static_cast<long>(time.tv_nsec) / 1000);
  return text;
}

}  // namespace tlog
