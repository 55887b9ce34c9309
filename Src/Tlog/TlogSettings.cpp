#include "TlogSettings.h"

#include <utility>

namespace tlog {
namespace {

std::optional<std::int32_t> parseLevel(std::string_view text) {
  if (text.size() != 1 || text[0] < '1' || text[0] > '6') {
    return std::nullopt;
  }
  return text[0] - '0';
}

// Refuses blanks and wrong separators: the exception would match no context.
bool isContextName(std::string_view text) {
  constexpr std::string_view allowed = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-:";
  return !text.empty() && text.find_first_not_of(allowed) == std::string_view::npos;
}

}  // namespace

std::int32_t Thresholds::of(const std::string& contextName) const {
  const auto exception = exceptions.find(contextName);
  return exception != exceptions.end() ? exception->second : general;
}

std::optional<Target> parseTarget(std::string_view value) {
  if (value == "stderr") {
    return Target::standardError;
  }
  if (value == "syslog") {
    return Target::syslog;
  }
  return std::nullopt;
}

std::optional<Thresholds> parseThresholds(std::string_view value) {
  Thresholds thresholds;
  bool generalSeen = false;
  while (true) {
    const auto comma = value.find(',');
    const std::string_view item = value.substr(0, comma);
    const auto equals = item.find('=');
    const bool isException = equals != std::string_view::npos;
    const auto level = parseLevel(isException ? item.substr(equals + 1) : item);
    if (!level) {
      return std::nullopt;
    }
    if (isException) {
      const std::string_view name = item.substr(0, equals);
      if (!isContextName(name) || !thresholds.exceptions.emplace(name, *level).second) {
        return std::nullopt;
      }
    } else {
      if (generalSeen) {
        return std::nullopt;
      }
      generalSeen = true;
      thresholds.general = *level;
    }
    if (comma == std::string_view::npos) {
      return thresholds;
    }
    value.remove_prefix(comma + 1);
  }
}

}  // namespace tlog
