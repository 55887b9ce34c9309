// The text of a mount policy, and an opening under it. A text that is refused has one line as its reason. A
// text that is accepted has rows that mean the same when they are written again. An opening is true only if
// something was mounted, and makes at most two mounts by a row.
//
// The input is the type of the stick, the errors of its mounts (a byte for each, from the last mount back)
// and the text, separated by NUL bytes. The text may contain NUL bytes.

#include "MountPolicy.h"

#include <sys/mount.h>

#include <algorithm>
#include <stdexcept>

#include "Fuzzing.h"

namespace {

using Dockhand::MountRule;
using Dockhand::MountRules;

std::optional<gid_t> groupOf(const std::string& name) {
  return name.size() == 1 ? std::optional<gid_t>(static_cast<unsigned char>(name[0])) : std::nullopt;
}

bool isPrintable(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

std::string columnsOf(const MountRule& rule) {
  std::string options;
  const std::pair<unsigned long, const char*> flags[] = {
      {MS_RDONLY, "ro,"},       {MS_NOSUID, "nosuid,"},    {MS_NODEV, "nodev,"},    {MS_NOEXEC, "noexec,"},
      {MS_NOATIME, "noatime,"}, {MS_SYNCHRONOUS, "sync,"}, {MS_DIRSYNC, "dirsync,"}};
  unsigned long known = 0;
  for (const auto& [flag, word] : flags) {
    known |= flag;
    options += (rule.flags & flag) != 0 ? word : "";
  }
  fuzz::require((rule.flags & ~known) == 0, "a row has only the flags that have words");
  options += rule.options;
  if (!options.empty() && options.back() == ',') {
    options.pop_back();
  }
  return rule.type + " " + (rule.mountAs.empty() ? "refuse" : rule.mountAs) + " " +
         (options.empty() ? "-" : options) + "\n";
}

void requireSameMeaning(const MountRules& rules) {
  std::string text;
  int line = 0;
  for (const MountRule& rule : rules) {
    fuzz::require(rule.line > line && rule.line <= Dockhand::maxMountRulesLines, "rows are in order");
    line = rule.line;
    // A number is longer than the name of a group, and the order of flags is ours.
    if (rule.options.size() > Dockhand::maxOptionsBytes - 64) {
      return;
    }
    text += columnsOf(rule);
  }
  const MountRules again = Dockhand::parseMountRules(text, groupOf);
  fuzz::require(again.size() == rules.size(), "the rows have the same number again");
  for (std::size_t at = 0; at < rules.size(); ++at) {
    fuzz::require(columnsOf(again[at]) == columnsOf(rules[at]), "a row has the same meaning again");
  }
}

void requireAnHonestOpening(const MountRules& rules, const std::string& type, std::string errors) {
  FakePlatform platform;
  platform.deviceNodes = {"usb_storage_sda"};
  platform.disks["/dev/usb_storage_sda"].values = {{"TYPE", type}};
  std::size_t tries = 0;
  bool mounted = false;
  platform.mountError = [&](const FakePlatform::Mount&) {
    ++tries;
    int error = 0;
    if (!errors.empty()) {
      error = static_cast<unsigned char>(errors.back());
      errors.pop_back();
    }
    mounted = mounted || error == 0;
    return error;
  };
  Dockhand::MountPolicy policy(platform, rules);
  TestableHandler handler(policy);
  fuzz::require(handler.OpenDevice(1) == mounted, "an opening is true only if something was mounted");
  const auto row = std::find_if(rules.begin(), rules.end(),
                                [&](const MountRule& rule) { return rule.type == "*" || rule.type == type; });
  if (row != rules.end()) {
    fuzz::require(tries <= (row->mountAs.empty() ? 0U : 2U), "a row is tried twice at most, or never");
  }
  fuzz::requireNothingOpen(platform);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input = fuzz::textOf(data, size);
  const auto parts = fuzz::fields(input, 2);
  const std::string text = input.substr(std::min(input.size(), parts[0].size() + parts[1].size() + 2));
  MountRules rules;
  try {
    rules = Dockhand::parseMountRules(text, groupOf);
  } catch (const std::runtime_error& error) {
    fuzz::require(isPrintable(error.what()), "a reason is one printable line");
    return 0;
  }
  requireSameMeaning(rules);
  journal().clear();
  requireAnHonestOpening(rules, parts[0], parts[1]);
  return 0;
}
