// The text of a mount policy.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include "MountRules.h"

namespace {

using Dockhand::MountRules;

std::optional<gid_t> fakeGroup(const std::string& name) {
  return name == "dockhand" ? std::optional<gid_t>(4711) : std::nullopt;
}

MountRules parse(const std::string& text) {
  return Dockhand::parseMountRules(text, fakeGroup);
}

/// One line for each row: LINE TYPE MOUNT-AS FLAGS(hex) OPTIONS.
std::string textOf(const MountRules& rules) {
  std::ostringstream text;
  for (const Dockhand::MountRule& rule : rules) {
    text << rule.line << ' ' << rule.type << ' ' << (rule.mountAs.empty() ? "(refused)" : rule.mountAs) << ' '
         << std::hex << rule.flags << std::dec << ' ' << rule.options << '\n';
  }
  return text.str();
}

/// Why a text is no policy; empty if it is one.
std::string reasonAgainst(const std::string& text) {
  try {
    parse(text);
    return "";
  } catch (const std::runtime_error& error) {
    return error.what();
  }
}

std::string repeated(const std::string& text, std::size_t count) {
  std::string result;
  for (std::size_t at = 0; at < count; ++at) {
    result += text;
  }
  return result;
}

TEST(MountRulesTest, ReadsRows) {
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"exfat exfat -\n", "1 exfat exfat 0 \n"},
      {"ntfs ntfs3 ro\n", "1 ntfs ntfs3 1 \n"},
      {"a b nosuid\n", "1 a b 2 \n"},
      {"a b nodev\n", "1 a b 4 \n"},
      {"a b noexec\n", "1 a b 8 \n"},
      {"a b sync\n", "1 a b 10 \n"},
      {"a b dirsync\n", "1 a b 80 \n"},
      {"a b noatime\n", "1 a b 400 \n"},
      {"a b ro,nosuid,nodev,noexec,sync,dirsync,noatime\n", "1 a b 49f \n"},
      {"a b utf8,nosuid,errors=remount-ro\n", "1 a b 2 utf8,errors=remount-ro\n"},
      {"a b umask=0002,gid=dockhand,ro\n", "1 a b 1 umask=0002,gid=4711\n"},
      {"a b gid=0\n", "1 a b 0 gid=0\n"},
      {"a b gid=1234567890\n", "1 a b 0 gid=1234567890\n"},
      {"a b Gid=dockhand,readonly,rov\n", "1 a b 0 Gid=dockhand,readonly,rov\n"},
      {"a refuse -\n", "1 a (refused) 0 \n"},
      {"* refuse -\n", "1 * (refused) 0 \n"},
      {"* ext4 ro\n", "1 * ext4 1 \n"},
      {"hfs+ LVM2_member -\nx-1.2 AZaz09 -\n", "1 hfs+ LVM2_member 0 \n2 x-1.2 AZaz09 0 \n"},
      {"\t a \t\tb \t - \t\n", "1 a b 0 \n"},
      {"# a comment\n\n  \t\n #a b -\na b - # why, \x1b\xff\na b x#y\n", "5 a b 0 \n6 a b 0 x#y\n"},
  };
  for (const auto& [text, expected] : rows) {
    EXPECT_EQ(textOf(parse(text)), expected) << text;
  }
}

TEST(MountRulesTest, SaysInWhichLineAndWhyATextIsNoPolicy) {
  const std::string columns = "a row has three columns, TYPE MOUNT-AS OPTIONS, and this one has ";
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"", "no row"},
      {"# only a comment\n", "no row"},
      {"a b -", "line 1: no newline at its end: the file is cut off"},
      {"a b -\n#", "line 2: no newline at its end: the file is cut off"},
      {"a\n", "line 1: " + columns + "1"},
      {"\n\na b\n", "line 3: " + columns + "2"},
      {"a b c d\n", "line 1: " + columns + "4"},
      {"a b # -\n", "line 1: " + columns + "2"},
      {"a b -\r\n", "line 1: OPTIONS has a byte that is not printable ASCII"},
      {"a b \x7f\n", "line 1: OPTIONS has a byte that is not printable ASCII"},
      {"a b \xc3\xa9\n", "line 1: OPTIONS has a byte that is not printable ASCII"},
      {"a\x1b b -\n", "line 1: TYPE has a byte that is not printable ASCII"},
      {std::string("a b\0 -\n", 7), "line 1: MOUNT-AS has a byte that is not printable ASCII"},
      {"a,b c -\n", "line 1: TYPE \"a,b\" is no name of a file system"},
      {"** c -\n", "line 1: TYPE \"**\" is no name of a file system"},
      {"a * -\n", "line 1: MOUNT-AS \"*\" is no name of a file system"},
      {"a /b -\n", "line 1: MOUNT-AS \"/b\" is no name of a file system"},
      {"a b@ -\n", "line 1: MOUNT-AS \"b@\" is no name of a file system"},
      {"a b[ -\n", "line 1: MOUNT-AS \"b[\" is no name of a file system"},
      {"a b` -\n", "line 1: MOUNT-AS \"b`\" is no name of a file system"},
      {"a b{ -\n", "line 1: MOUNT-AS \"b{\" is no name of a file system"},
      {"a b: -\n", "line 1: MOUNT-AS \"b:\" is no name of a file system"},
      {"a b ro,,utf8\n", "line 1: OPTIONS has an empty option"},
      {"a b ,ro\n", "line 1: OPTIONS has an empty option"},
      {"a b ro,\n", "line 1: OPTIONS has an empty option"},
      {"a b gid=media\n", "line 1: there is no group \"media\""},
      {"a b gid=\n", "line 1: there is no group \"\""},
      {"a b gid=12x\n", "line 1: there is no group \"12x\""},
      {"a b gid=/\n", "line 1: there is no group \"/\""},
      {"a b gid=:\n", "line 1: there is no group \":\""},
      {"a refuse ro\n", "line 1: a row that refuses has no options: write -"},
      {"a b c\nx y z\n* refuse ro\n", "line 3: a row that refuses has no options: write -"},
  };
  for (const auto& [text, expected] : rows) {
    EXPECT_EQ(reasonAgainst(text), expected) << text;
  }
  for (const std::string word : {"rw",       "suid",   "dev",    "exec", "async",   "atime",    "relatime",
                                 "diratime", "auto",   "noauto", "user", "users",   "nouser",   "owner",
                                 "group",    "nofail", "loop",   "bind", "remount", "defaults", "_netdev"}) {
    EXPECT_EQ(reasonAgainst("a b nosuid," + word + "\n"),
              "line 1: option \"" + word + "\" is only for mount(8): leave it out");
  }
}

TEST(MountRulesTest, HasLimits) {
  const std::string longest(32, 't');
  const std::string options(512, 'o');
  const std::string row = "a b -\n";
  const std::string atLimit = row + "#" + std::string(16384 - row.size() - 2, 'x') + "\n";
  const std::vector<std::pair<std::string, std::string>> rows = {
      {longest + " " + longest + " " + options + "\n", ""},
      {longest + "t b -\n", "line 1: TYPE has more than 32 bytes"},
      {"a " + longest + "t -\n", "line 1: MOUNT-AS has more than 32 bytes"},
      {"a b o" + options + "\n", "line 1: OPTIONS has more than 512 bytes"},
      {repeated(row, 400), ""},
      {repeated(row, 401), "line 401: more than 400 lines"},
      {repeated("\n", 400) + "\xff\n", "line 401: more than 400 lines"},
      {atLimit, ""},
      {atLimit + "\n", "more than 16384 bytes"},
  };
  for (const auto& [text, expected] : rows) {
    EXPECT_EQ(reasonAgainst(text), expected) << text.substr(0, 80);
  }
}

TEST(MountRulesTest, FindsTheFirstRowForAType) {
  const MountRules rules = parse("ext4 one -\next4 two -\nntfs three -\n* four -\nvfat five -\n");
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"ext4", "one"}, {"ntfs", "three"}, {"vfat", "four"}, {"xfs", "four"}, {"", "four"}, {"*", "four"}};
  for (const auto& [type, expected] : rows) {
    EXPECT_EQ(findRule(rules, type)->mountAs, expected) << type;
  }
  const MountRules few = parse("ext4 one -\n");
  EXPECT_EQ(findRule(few, "ext4"), few.data());
  for (const std::string type : {"ext3", "ext", "ext44", "", "EXT4"}) {
    EXPECT_EQ(findRule(few, type), nullptr) << type;
  }
}

TEST(MountRulesTest, AsksTheSystemForGroups) {
  EXPECT_EQ(Dockhand::findGroup("root"), std::optional<gid_t>(0));
  EXPECT_EQ(Dockhand::findGroup("no such group"), std::nullopt);
}

}  // namespace
