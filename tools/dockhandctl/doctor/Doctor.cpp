#include <algorithm>
#include <iostream>
#include <string>
#include <vector>

#include "../Commands.h"
#include "../Failure.h"
#include "../Json.h"
#include "../Text.h"
#include "Checks.h"

namespace dockhandctl {
namespace doctor {
namespace {

const char* textOf(State state) {
  switch (state) {
    case State::ok:
      return "ok";
    case State::warning:
      return "warning";
    case State::problem:
      break;
  }
  return "problem";
}

}  // namespace

Findings checkEverything(const Machine& machine) {
  Findings all;
  for (const auto check :
       {checkSocket, checkSocketMode, checkSocketDirectory, checkMedia, checkPath, checkTools, checkWrappers,
        checkPartitioning, checkFormatting, checkFileSystems, checkMountPolicy, checkPartitionTables,
        checkUdevRules, checkNodes, checkMountTable, checkTmp, checkLogFile, checkProtectedFiles}) {
    const Findings findings = check(machine);
    all.insert(all.end(), findings.begin(), findings.end());
  }
  return all;
}

}  // namespace doctor

int runDoctor(const Settings& settings, const std::vector<std::string>& ignored) {
  const doctor::Findings findings = doctor::checkEverything(doctor::thisMachine());
  bool allOk = true;
  Json checks = Json::array();
  for (const doctor::Finding& finding : findings) {
    const bool isIgnored = std::find(ignored.begin(), ignored.end(), finding.check) != ignored.end();
    allOk = allOk && (finding.state == doctor::State::ok || isIgnored);
    const std::string state = doctor::textOf(finding.state);
    if (settings.json) {
      checks.push_back({{"check", finding.check},
                        {"state", state},
                        {"ignored", isIgnored},
                        {"message", finding.message},
                        {"remedy", finding.remedy}});
    } else {
      std::cout << state << std::string(9 - state.size(), ' ') << finding.check << ": "
                << printable(finding.message) << (finding.remedy.empty() ? "" : ". Fix: ")
                << printable(finding.remedy) << (isIgnored ? " (ignored)" : "") << '\n';
    }
  }
  if (settings.json) {
    std::cout << toText({{"ok", allOk}, {"checks", checks}}) << '\n';
  }
  return allOk ? done : answerIsNo;
}

}  // namespace dockhandctl
