#include "TlogLine.h"

#include <syslog.h>

#include <array>
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
  constexpr unsigned char del = 0x7f;
  constexpr unsigned char leadByteOfC1 = 0xc2;

  std::string escaped;
  escaped.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : '\0');
    if (byte < ' ' || byte == del) {
      appendEscaped(escaped, byte);
    } else if (byte == leadByteOfC1 && next >= 0x80 && next <= 0x9f) {
      appendEscaped(escaped, byte);
      appendEscaped(escaped, next);
      ++i;
    } else {
      escaped += text[i];
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

std::string formatTimestamp(const std::timespec& time) {
  std::tm utc{};
  gmtime_r(&time.tv_sec, &utc);
  std::array<char, 32> seconds{};
  std::strftime(seconds.data(), seconds.size(), "%Y-%m-%dT%H:%M:%S", &utc);
  std::array<char, 32> fraction{};
  std::snprintf(fraction.data(), fraction.size(), ".%06ldZ", static_cast<long>(time.tv_nsec) / 1000);
  return std::string(seconds.data()) + fraction.data();
}

}  // namespace tlog
