#ifndef DOCKHAND_MOUNTRULES_H
#define DOCKHAND_MOUNTRULES_H

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace Dockhand {

/// A row of a mount policy: how sticks of one type are mounted.
struct MountRule {
  /// Where the row is in its file. The first line is 1.
  int line = 0;
  /// The "TYPE" that libblkid reports, or "*" for every type.
  std::string type;
  /// The type that mount(2) takes. Empty: such sticks are refused.
  std::string mountAs;
  /// Flags and options of mount(2).
  unsigned long flags = 0;
  std::string options;
};

using MountRules = std::vector<MountRule>;

// The example has a fifth of each. They only keep a damaged file from filling the memory.
constexpr std::size_t maxMountRulesBytes = 16384;
constexpr int maxMountRulesLines = 400;
constexpr std::size_t maxTypeBytes = 32;
/// The kernel takes less than a page of options.
constexpr std::size_t maxOptionsBytes = 512;

/// The number of a group, or no value if there is no such group.
using FindGroup = std::function<std::optional<gid_t>(const std::string& name)>;
/// Asks the system's tables of groups.
std::optional<gid_t> findGroup(const std::string& name);

/// Reads the text of a mount policy. Each line has a type, what it is mounted as (or "refuse") and the
/// options of mount(8) (or "-"), with blanks between them. A column that begins with # begins a comment. The
/// name of a group after "gid=" becomes its number. Throws std::runtime_error with the line and the reason if
/// the text has any other line, no row, no newline at its end, or more than the limits above.
MountRules parseMountRules(const std::string& text, const FindGroup& groupNumber);

/// The first row for a type, or null. An empty type has only the row "*".
const MountRule* findRule(const MountRules& rules, const std::string& type);

}  // namespace Dockhand

#endif  // DOCKHAND_MOUNTRULES_H
