#include "MountRules.h"

#include <grp.h>
#include <sys/mount.h>

#include <algorithm>
#include <stdexcept>

namespace Dockhand {

namespace {

struct Flag {
  const char* word;
  unsigned long value;
};

constexpr Flag mountFlags[] = {
    {"ro", MS_RDONLY},       {"nosuid", MS_NOSUID},    {"nodev", MS_NODEV},     {"noexec", MS_NOEXEC},
    {"noatime", MS_NOATIME}, {"sync", MS_SYNCHRONOUS}, {"dirsync", MS_DIRSYNC},
};

/// Words that mount(8) keeps for itself: a file system would refuse them, and with them every stick of the
/// row.
constexpr const char* wordsOfMount[] = {"rw",       "suid",     "dev",    "exec",   "async", "atime",
                                        "relatime", "diratime", "auto",   "noauto", "user",  "users",
                                        "nouser",   "owner",    "group",  "nofail", "loop",  "bind",
                                        "remount",  "defaults", "_netdev"};

std::string quoted(const std::string& text) {
  return "\"" + text + "\"";
}

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

bool isLetterOrDigit(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || isDigit(c);
}

/// The columns of a line, without the comment.
std::vector<std::string> columnsOf(const std::string& line) {
  const char* const blanks = " \t";
  std::vector<std::string> columns;
  std::size_t begin = line.find_first_not_of(blanks);
  while (begin != std::string::npos && line[begin] != '#') {
    const std::size_t end = std::min(line.find_first_of(blanks, begin), line.size());
    columns.push_back(line.substr(begin, end - begin));
    begin = line.find_first_not_of(blanks, end);
  }
  return columns;
}

void checkColumn(const std::string& name, const std::string& text, std::size_t maxBytes) {
  if (text.size() > maxBytes) {
    throw std::runtime_error(name + " has more than " + std::to_string(maxBytes) + " bytes");
  }
  const bool isPrintable =
      std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < '\x7f'; });
  if (!isPrintable) {
    throw std::runtime_error(name + " has a byte that is not printable ASCII");
  }
}

void checkType(const std::string& name, const std::string& text) {
  checkColumn(name, text, maxTypeBytes);
  const bool isName = std::all_of(text.begin(), text.end(), [](char c) {
    return isLetterOrDigit(c) || c == '_' || c == '-' || c == '+' || c == '.';
  });
  if (!isName) {
    throw std::runtime_error(name + " " + quoted(text) + " is no name of a file system");
  }
}

std::string withGroupNumber(const std::string& option, const FindGroup& groupNumber) {
  const std::string key = "gid=";
  const std::string group = option.substr(key.size());
  if (!group.empty() && std::all_of(group.begin(), group.end(), isDigit)) {
    return option;
  }
  const std::optional<gid_t> number = groupNumber(group);
  if (!number) {
    throw std::runtime_error("there is no group " + quoted(group));
  }
  return key + std::to_string(*number);
}

void addOption(MountRule& rule, const std::string& option, const FindGroup& groupNumber) {
  if (option.empty()) {
    throw std::runtime_error("OPTIONS has an empty option");
  }
  for (const Flag& flag : mountFlags) {
    if (option == flag.word) {
      rule.flags |= flag.value;
      return;
    }
  }
  for (const char* word : wordsOfMount) {
    if (option == word) {
      throw std::runtime_error("option " + quoted(option) + " is only for mount(8): leave it out");
    }
  }
  rule.options += rule.options.empty() ? "" : ",";
  rule.options += option.rfind("gid=", 0) == 0 ? withGroupNumber(option, groupNumber) : option;
}

void addOptions(MountRule& rule, const std::string& options, const FindGroup& groupNumber) {
  if (options == "-") {
    return;
  }
  if (rule.mountAs.empty()) {
    throw std::runtime_error("a row that refuses has no options: write -");
  }
  std::size_t begin = 0;
  while (begin <= options.size()) {
    const std::size_t end = std::min(options.find(',', begin), options.size());
    addOption(rule, options.substr(begin, end - begin), groupNumber);
    begin = end + 1;
  }
}

MountRule ruleOf(const std::vector<std::string>& columns, const FindGroup& groupNumber) {
  if (columns.size() != 3) {
    throw std::runtime_error("a row has three columns, TYPE MOUNT-AS OPTIONS, and this one has " +
                             std::to_string(columns.size()));
  }
  MountRule rule;
  rule.type = columns[0];
  if (rule.type != "*") {
    checkType("TYPE", rule.type);
  }
  checkType("MOUNT-AS", columns[1]);
  rule.mountAs = columns[1] == "refuse" ? "" : columns[1];
  checkColumn("OPTIONS", columns[2], maxOptionsBytes);
  addOptions(rule, columns[2], groupNumber);
  return rule;
}

}  // namespace

std::optional<gid_t> findGroup(const std::string& name) {
  const group* const found = ::getgrnam(name.c_str());
  return found != nullptr ? std::optional<gid_t>(found->gr_gid) : std::nullopt;
}

MountRules parseMountRules(const std::string& text, const FindGroup& groupNumber) {
  if (text.size() > maxMountRulesBytes) {
    throw std::runtime_error("more than " + std::to_string(maxMountRulesBytes) + " bytes");
  }
  MountRules rules;
  int line = 0;
  std::size_t begin = 0;
  try {
    while (begin < text.size()) {
      if (++line > maxMountRulesLines) {
        throw std::runtime_error("more than " + std::to_string(maxMountRulesLines) + " lines");
      }
      const std::size_t end = text.find('\n', begin);
      if (end == std::string::npos) {
        throw std::runtime_error("no newline at its end: the file is cut off");
      }
      const std::vector<std::string> columns = columnsOf(text.substr(begin, end - begin));
      if (!columns.empty()) {
        rules.push_back(ruleOf(columns, groupNumber));
        rules.back().line = line;
      }
      begin = end + 1;
    }
  } catch (const std::runtime_error& error) {
    throw std::runtime_error("line " + std::to_string(line) + ": " + error.what());
  }
  if (rules.empty()) {
    throw std::runtime_error("no row");
  }
  return rules;
}

const MountRule* findRule(const MountRules& rules, const std::string& type) {
  const auto found = std::find_if(rules.begin(), rules.end(), [&type](const MountRule& rule) {
    return rule.type == "*" || rule.type == type;
  });
  return found != rules.end() ? &*found : nullptr;
}

}  // namespace Dockhand
