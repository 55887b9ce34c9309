// The line numbers of the log: log readers tell call sites by them, so no two sites of a module may share
// one. Reads the daemon's sources; SOURCE_DIR is the project's directory.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

struct Source {
  std::string name;
  std::string text;
};

/// A place that gives a line number.
struct CallSite {
  std::string module;
  std::string callee;
  int number;
  /// The file, and the part of it between two closing braces at the left margin: one function, here.
  std::string body;
};

/// A way of giving a line number.
struct Callee {
  std::string spelling;
  /// Empty: the first argument names it.
  std::string module;
  std::size_t numberArgument;
};

const Callee callees[] = {
    {"usbClientLog.write", "Dockhand.UsbClient", 1},  {"mainLog.write", "Dockhand.main", 1},
    {"serverLog.write", "Dockhand.UsbServer", 1},     {"forceUnmount", "Dockhand.UsbClient", 1},
    {"executeShellCommand", "Dockhand.UsbClient", 1}, {"TlogContext::GetLogContext", "", 2}};

std::vector<Source> sources() {
  std::vector<Source> found;
  for (const auto& file : std::filesystem::directory_iterator(SOURCE_DIR "/Src/Dockhand")) {
    if (file.path().extension() == ".cpp" || file.path().extension() == ".h") {
      std::ostringstream text;
      text << std::ifstream(file.path()).rdbuf();
      found.push_back({file.path().filename().string(), text.str()});
    }
  }
  return found;
}

bool isNamePart(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
}

/// The index behind the string or character literal that begins at `begin`.
std::size_t literalEnd(const std::string& text, std::size_t begin) {
  std::size_t end = begin + 1;
  while (end < text.size() && text[end] != text[begin]) {
    end += text[end] == '\\' ? 2 : 1;
  }
  return end + 1;
}

bool beginsLiteral(const std::string& text, std::size_t at) {
  // A quote inside a number is a digit separator.
  return text[at] == '"' || (text[at] == '\'' && (at == 0 || !isNamePart(text[at - 1])));
}

std::string withoutComments(const std::string& text) {
  std::string code;
  std::size_t at = 0;
  while (at < text.size()) {
    std::size_t end = at + 1;
    if (text.compare(at, 2, "//") == 0) {
      at = std::min(text.find('\n', at), text.size());
      continue;
    }
    if (text.compare(at, 2, "/*") == 0) {
      at = text.find("*/", at) + 2;
      continue;
    }
    if (beginsLiteral(text, at)) {
      end = literalEnd(text, at);
    }
    code += text.substr(at, end - at);
    at = end;
  }
  return code;
}

std::string trimmed(const std::string& text) {
  const auto begin = text.find_first_not_of(" \n");
  return begin == std::string::npos ? "" : text.substr(begin, text.find_last_not_of(" \n") + 1 - begin);
}

/// The arguments of a call, from behind its opening parenthesis.
std::vector<std::string> argumentsFrom(const std::string& code, std::size_t at) {
  std::vector<std::string> arguments(1);
  int depth = 0;
  while (at < code.size()) {
    const char c = code[at];
    if (depth == 0 && c == ')') {
      break;
    }
    if (depth == 0 && c == ',') {
      arguments.emplace_back();
      ++at;
      continue;
    }
    depth += c == '(' || c == '[' || c == '{' ? 1 : c == ')' || c == ']' || c == '}' ? -1 : 0;
    const std::size_t end = beginsLiteral(code, at) ? literalEnd(code, at) : at + 1;
    arguments.back() += code.substr(at, end - at);
    at = end;
  }
  std::transform(arguments.begin(), arguments.end(), arguments.begin(), trimmed);
  return arguments;
}

/// The call sites of a source in their order. What a call gives that is neither a number, nor the declaration
/// of a parameter, nor the parameter handed on, is added to `unreadable`.
std::vector<CallSite> callSites(const Source& source, std::vector<std::string>& unreadable) {
  const std::string code = withoutComments(source.text);
  std::map<std::size_t, CallSite> sites;
  for (const Callee& callee : callees) {
    const std::string call = callee.spelling + '(';
    for (auto at = code.find(call); at != std::string::npos; at = code.find(call, at + 1)) {
      if (at > 0 && isNamePart(code[at - 1])) {
        continue;
      }
      const auto arguments = argumentsFrom(code, at + call.size());
      const std::string number =
          callee.numberArgument < arguments.size() ? arguments[callee.numberArgument] : "";
      if (number == "int sourceLine" || number == "sourceLine") {
        continue;
      }
      if (number.empty() || number.size() > 9 ||
          !std::all_of(number.begin(), number.end(), [](unsigned char c) { return std::isdigit(c) != 0; })) {
        unreadable.push_back(source.name + ": " + call + "..." + number);
        continue;
      }
      std::string module = callee.module;
      if (module.empty()) {
        module = arguments[0].substr(1, arguments[0].size() - 2);
      }
      std::size_t body = 0;
      for (auto end = code.find("\n}"); end < at; end = code.find("\n}", end + 1)) {
        ++body;
      }
      sites[at] = {module, callee.spelling, std::stoi(number), source.name + "#" + std::to_string(body)};
    }
  }
  std::vector<CallSite> inOrder;
  for (const auto& [at, site] : sites) {
    inOrder.push_back(site);
  }
  return inOrder;
}

std::vector<CallSite> callSites(const std::vector<Source>& all, std::vector<std::string>& unreadable) {
  std::vector<CallSite> sites;
  for (const Source& source : all) {
    const auto more = callSites(source, unreadable);
    sites.insert(sites.end(), more.begin(), more.end());
  }
  return sites;
}

std::vector<CallSite> callSites() {
  std::vector<std::string> unreadable;
  auto sites = callSites(sources(), unreadable);
  EXPECT_THAT(unreadable, IsEmpty());
  return sites;
}

std::string describe(const CallSite& site) {
  return site.module + " " + std::to_string(site.number);
}

std::vector<std::string> sharedNumbers(const std::vector<CallSite>& sites) {
  std::set<std::string> seen;
  std::vector<std::string> shared;
  for (const CallSite& site : sites) {
    if (!seen.insert(describe(site)).second) {
      shared.push_back(describe(site));
    }
  }
  return shared;
}

/// Numbers that are lower than the one before them in the same function.
std::vector<std::string> descendingNumbers(const std::vector<CallSite>& sites,
                                           const std::set<int>& exceptions) {
  std::vector<std::string> descending;
  const CallSite* previous = nullptr;
  for (const CallSite& site : sites) {
    if (exceptions.count(site.number) != 0) {
      continue;
    }
    if (previous != nullptr && previous->body == site.body && previous->number > site.number) {
      descending.push_back(describe(site));
    }
    previous = &site;
  }
  return descending;
}

std::size_t countOf(const std::vector<CallSite>& sites, const std::string& callee) {
  return static_cast<std::size_t>(std::count_if(
      sites.begin(), sites.end(), [&callee](const CallSite& site) { return site.callee == callee; }));
}

TEST(LineNumbers, AreSharedByNoTwoCallSitesOfAModule) {
  EXPECT_THAT(sharedNumbers(callSites()), IsEmpty());
}

TEST(LineNumbers, AscendWithinEachFunction) {
  // The refusals of a repair are numbered by the places they once had.
  EXPECT_THAT(descendingNumbers(callSites(), {1255, 1260}), IsEmpty());
}

TEST(LineNumbers, AreFoundAtEveryCallSite) {
  const auto sites = callSites();
  EXPECT_GE(countOf(sites, "usbClientLog.write"), 102U);
  EXPECT_GE(countOf(sites, "mainLog.write"), 2U);
  EXPECT_GE(countOf(sites, "serverLog.write"), 4U);
  EXPECT_GE(countOf(sites, "forceUnmount"), 3U);
  EXPECT_GE(countOf(sites, "executeShellCommand"), 6U);

  std::vector<std::string> contexts;
  for (const CallSite& site : sites) {
    if (site.callee == "TlogContext::GetLogContext") {
      contexts.push_back(describe(site));
    }
  }
  EXPECT_THAT(contexts, ::testing::UnorderedElementsAre("Dockhand.main 10", "Dockhand.UsbClient 18",
                                                        "Dockhand.UsbServer 5"));
}

TEST(LineNumbers, AreHandedOnOnlyByTheLogItselfAndTheUnmountLoop) {
  // So that no call site hides behind a variable.
  std::map<std::string, int> handedOn;
  int declared = 0;
  for (const Source& source : sources()) {
    const std::string code = withoutComments(source.text);
    for (auto at = code.find("sourceLine,"); at != std::string::npos; at = code.find("sourceLine,", at + 1)) {
      const bool declaration = at >= 4 && code.compare(at - 4, 4, "int ") == 0;
      (declaration ? declared : handedOn[source.name]) += 1;
    }
  }
  EXPECT_EQ(declared, 5);
  EXPECT_THAT(handedOn,
              ElementsAre(::testing::Pair("ModuleLog.h", 1), ::testing::Pair("ShellRunner.cpp", 1)));
}

TEST(LineNumbers, AreGivenInNoOtherWay) {
  for (const Source& source : sources()) {
    const std::string code = withoutComments(source.text);
    EXPECT_EQ(code.find("TlogPrintf(") != std::string::npos, source.name == "ModuleLog.h") << source.name;
    for (auto at = code.find("write("); at != std::string::npos; at = code.find("write(", at + 1)) {
      if (at == 0 || (code[at - 1] != '.' && code[at - 1] != '>')) {
        continue;
      }
      const bool known = std::any_of(std::begin(callees), std::end(callees), [&](const Callee& callee) {
        const std::size_t length = callee.spelling.size() - std::string("write").size();
        return at >= length && code.compare(at - length, callee.spelling.size(), callee.spelling) == 0;
      });
      EXPECT_TRUE(known) << source.name << ": " << code.substr(at, 60);
    }
  }
}

// The reading itself

TEST(LineNumbers, AreReadFromCallsOfEveryForm) {
  const Source source{"Sample.cpp",
                      "void f() {\n"
                      "  usbClientLog.write(2, 10, \"a\");  // usbClientLog.write(2, 11, no);\n"
                      "  /* mainLog.write(2, 12) */ usbClientLog.write(wanted(2, 'x', \")\"),\n"
                      "                     20, \"b\");\n"
                      "  forceUnmount(\"a, 13\" + node('(', \"\\\",14\"), 30, \"\");\n"
                      "}\n"
                      "int g(int a) {\n"
                      "  return executeShellCommand(\"x, y\" + at[f(a, 1)], 15, true);\n"
                      "}\n"
                      "int executeShellCommand(const std::string& command, int sourceLine, bool always);\n"};
  std::vector<std::string> unreadable;
  std::vector<std::string> found;
  for (const CallSite& site : callSites(source, unreadable)) {
    found.push_back(site.callee + " " + std::to_string(site.number) + " " + site.body);
  }
  EXPECT_THAT(found, ElementsAre("usbClientLog.write 10 Sample.cpp#0", "usbClientLog.write 20 Sample.cpp#0",
                                 "forceUnmount 30 Sample.cpp#0", "executeShellCommand 15 Sample.cpp#1"));
  EXPECT_THAT(unreadable, IsEmpty());
}

TEST(LineNumbers, AreReportedWhenSharedOrDescendingOrUnreadable) {
  const std::vector<Source> samples = {{"A.cpp",
                                        "void f() {\n"
                                        "  usbClientLog.write(2, 10);\n"
                                        "  forceUnmount(node, 9, \"\");\n"
                                        "  usbClientLog.write(2, line);\n"
                                        "}\n"},
                                       {"B.cpp",
                                        "void g() {\n"
                                        "  mainLog.write(2, 9);\n"
                                        "  executeShellCommand(command, 10, true);\n"
                                        "}\n"}};
  std::vector<std::string> unreadable;
  const auto sites = callSites(samples, unreadable);
  EXPECT_THAT(sharedNumbers(sites), ElementsAre("Dockhand.UsbClient 10"));
  EXPECT_THAT(descendingNumbers(sites, {}), ElementsAre("Dockhand.UsbClient 9"));
  EXPECT_THAT(descendingNumbers(sites, {9}), IsEmpty());
  EXPECT_THAT(unreadable, ElementsAre("A.cpp: usbClientLog.write(...line"));
}

}  // namespace
