#ifndef TLOG_TLOG_SETTINGS_H
#define TLOG_TLOG_SETTINGS_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "Tlog.h"

/// Parses the values of TLOG_TARGET and TLOG_LEVEL; part of the library, not of its interface.
namespace tlog {

enum class Target { standardError, syslog };

struct Thresholds {
  std::int32_t general = TlogContext::defaultThreshold;
  std::map<std::string, std::int32_t> exceptions;

  std::int32_t of(const std::string& contextName) const;
};

/// nullopt if the value is neither `stderr` nor `syslog`.
std::optional<Target> parseTarget(std::string_view value);

/// nullopt if any part of the value is wrong.
std::optional<Thresholds> parseThresholds(std::string_view value);

}  // namespace tlog

#endif  // TLOG_TLOG_SETTINGS_H
