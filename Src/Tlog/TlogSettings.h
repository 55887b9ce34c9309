#ifndef TLOG_TLOG_SETTINGS_H
#define TLOG_TLOG_SETTINGS_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "Tlog.h"

/// What the values of TLOG_TARGET and TLOG_LEVEL mean; part of the library, not of its interface.
namespace tlog {

enum class Target { standardError, syslog };

struct Thresholds {
  std::int32_t general = TlogContext::defaultThreshold;
  std::map<std::string, std::int32_t> exceptions;

  std::int32_t of(const std::string& contextName) const;
};

/// Nothing if the value is none of `stderr` and `syslog`.
std::optional<Target> parseTarget(std::string_view value);

/// Nothing if any part of the value is wrong.
std::optional<Thresholds> parseThresholds(std::string_view value);

}  // namespace tlog

#endif  // TLOG_TLOG_SETTINGS_H
