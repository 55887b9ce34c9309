// The manual pages and the completion match the program.

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>

#include "CtlTest.h"
#include "Emulator.h"

namespace ctltest {
namespace {

using ::testing::IsSupersetOf;

const std::string program = DOCKHAND_SOURCE_DIR "/tools/dockhandctl/dockhandctl.1";
const std::string daemon = DOCKHAND_SOURCE_DIR "/Src/Dockhand/dockhand.8";
const std::string completion = DOCKHAND_SOURCE_DIR "/tools/dockhandctl/dockhandctl.bash";

std::string readFile(const std::string& path) {
  std::ifstream file(path);
  std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  if (text.empty()) {
    throw std::runtime_error(path + " cannot be read");
  }
  return text;
}

/// Returns a page with minus signs as printed.
std::string readPage(const std::string& path) {
  return std::regex_replace(readFile(path), std::regex(R"(\\-)"), "-");
}

std::string help(Arguments arguments) {
  arguments.emplace_back("--help");
  return run(arguments).out;
}

/// Returns the part between two texts.
std::string between(const std::string& text, const std::string& begin, const std::string& end) {
  const auto from = text.find(begin) + begin.size();
  return text.substr(from, text.find(end, from) - from);
}

/// Returns each match of the first group of a pattern.
std::set<std::string> allOf(const std::string& text, const std::string& pattern) {
  const std::regex regex(pattern);
  std::set<std::string> result;
  for (std::sregex_iterator found(text.begin(), text.end(), regex), end; found != end; ++found) {
    result.insert((*found)[1]);
  }
  return result;
}

std::set<std::string> commandsOfTheProgram() {
  const std::string text = help({});
  // Newer versions of CLI11 write headings in capitals.
  const std::string heading =
      text.find("SUBCOMMANDS:\n") == std::string::npos ? "Subcommands:\n" : "SUBCOMMANDS:\n";
  return allOf(between(text, heading, "Exit status:"), R"((?:^|\n)  ([a-z-]+))");
}

std::set<std::string> optionsOf(const std::string& command) {
  return allOf(help(command.empty() ? Arguments{} : Arguments{command}), R"((--[a-z-]+))");
}

/// Returns the output of a shell command, which must succeed.
std::string shell(const std::string& command) {
  exchangeAMessage();
  FILE* const output = popen(command.c_str(), "r");
  std::string text;
  char buffer[4096];
  while (output != nullptr && fgets(buffer, sizeof(buffer), output) != nullptr) {
    text += buffer;
  }
  EXPECT_EQ(pclose(output), 0) << command << ": " << text;
  exchangeAMessage();
  return text;
}

std::set<std::string> words(const std::string& text) {
  std::istringstream stream(text);
  return {std::istream_iterator<std::string>(stream), std::istream_iterator<std::string>()};
}

std::set<std::string> complete(const std::string& line, const std::string& word) {
  return words(shell("bash -c '. " + completion +
                     "; dockhandctl() { \"" DOCKHANDCTL_PROGRAM "\" \"$@\"; };"
                     " COMP_WORDS=(dockhandctl " +
                     line + " \"" + word +
                     "\"); COMP_CWORD=$((${#COMP_WORDS[@]} - 1));"
                     " _dockhandctl; echo \"${COMPREPLY[@]}\"'"));
}

class Documentation : public CtlTest {};

TEST_F(Documentation, HasEveryCommandOfTheProgramAndNoOther) {
  const auto commands = commandsOfTheProgram();
  EXPECT_EQ(commands.size(), 22U);
  EXPECT_EQ(allOf(between(readPage(program), ".SH COMMANDS", ".SH EXIT STATUS"), R"(\.TP\n\.BR? ([a-z-]+))"),
            commands);
}

TEST_F(Documentation, HasEveryOptionOfEachCommandAndNoOther) {
  const std::string page = readPage(program);
  const std::string commandPart = between(page, ".SH COMMANDS", ".SH EXIT STATUS");
  for (const std::string& command : commandsOfTheProgram()) {
    const std::string synopsis = between(commandPart + "\n", ".TP\n.BR " + command + " ", "\n");
    auto options = optionsOf(command);
    options.erase("--help");
    if (command == "rescan") {
      EXPECT_THAT(options, IsEmpty());
      continue;
    }
    EXPECT_EQ(allOf(synopsis, R"((--[a-z-]+))"), options) << command;
  }
  EXPECT_EQ(allOf(between(page, ".SH OPTIONS", ".SH COMMANDS"), R"(\.TP\n\.[A-Z]+ (?:-h ", " )?(--[a-z-]+))"),
            optionsOf(""));
}

TEST_F(Documentation, HasEveryExitStatus) {
  const auto statuses = allOf(between(help({}), "Exit status:", "\x01"), R"(\n  (\d+)  )");
  EXPECT_EQ(statuses.size(), 10U);
  EXPECT_EQ(allOf(between(readPage(program), ".SH EXIT STATUS", ".SH ENVIRONMENT"), R"(\.TP\n\.B (\d+))"),
            statuses);
}

TEST_F(Documentation, HasTheDaemonsEnvironmentVariables) {
  EXPECT_THAT(allOf(between(readPage(daemon), ".SH ENVIRONMENT", ".SH FILES"), R"(\.TP\n\.B ([A-Z_]+))"),
              IsSupersetOf(allOf(readFile(DOCKHAND_SOURCE_DIR "/README.md"), R"(\| `([A-Z_]+)` \|)")));
}

TEST_F(Documentation, IsFormattedWithoutWarnings) {
  if (std::system("command -v groff >/dev/null") != 0) {
    GTEST_SKIP() << "groff is not installed";
  }
  for (const std::string& page : {program, daemon}) {
    EXPECT_EQ(shell("groff -man -Tutf8 -ww " + page + " 2>&1 >/dev/null"), "");
  }
}

TEST_F(Documentation, IsCompletedByTheShell) {
  if (isEmulated()) {
    GTEST_SKIP() << "the shell cannot start a program for another processor";
  }
  plugInStick();
  auto commands = commandsOfTheProgram();
  EXPECT_EQ(complete("", ""), commands);
  EXPECT_EQ(complete("", "un"), std::set<std::string>{});
  EXPECT_EQ(complete("", "us"), std::set<std::string>{"usb-version"});
  commands.insert("");
  for (const std::string& command : commands) {
    auto options = optionsOf(command);
    options.insert("--timeout");
    EXPECT_EQ(complete(command, "--"), options) << command;
  }
  EXPECT_EQ(complete("open", ""), std::set<std::string>{"1"});
  EXPECT_EQ(complete("--timeout 5 open", ""), std::set<std::string>{"1"});
  EXPECT_EQ(complete("open 1", ""), std::set<std::string>{});
  EXPECT_EQ(complete("notify", "xrite-a"), std::set<std::string>{"xrite-added"});
  EXPECT_EQ(complete("observer add", ""), (std::set<std::string>{"added", "removed"}));
  EXPECT_EQ(complete("call", "OpenD"), (std::set<std::string>{"OpenDevice", "OpenDeviceAt"}));
}

}  // namespace
}  // namespace ctltest
