#ifndef TESTS_SUPPORT_EMULATOR_H
#define TESTS_SUPPORT_EMULATOR_H

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

/// The command that starts a program for another processor: DOCKHAND_EMULATOR, words separated by semicolons.
/// Tests need it because a program under QEMU cannot start another one by itself.
inline std::vector<std::string> emulatorWords() {
  const char* const text = std::getenv("DOCKHAND_EMULATOR");
  std::istringstream stream(text != nullptr ? text : "");
  std::vector<std::string> result;
  for (std::string word; std::getline(stream, word, ';');) {
    result.push_back(word);
  }
  return result;
}

inline bool isEmulated() {
  return !emulatorWords().empty();
}

#endif  // TESTS_SUPPORT_EMULATOR_H
