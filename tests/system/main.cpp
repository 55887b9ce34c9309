#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "ArgumentVector.h"
#include "World.h"

namespace {

/// Starts this program again in a private root, so that the machine's /dev and /media do not change.
int enterPrivateRoot(char** argv) {
  const std::string script = DOCKHAND_SOURCE_DIR "/tools/dev/private_root";
  std::vector<std::string> words = {script, "--keep", DOCKHAND_SOURCE_DIR, "--keep", DOCKHAND_BUILD_DIR};
  words.push_back(systest::readLink("/proc/self/exe"));
  for (char** argument = argv + 1; *argument != nullptr; ++argument) {
    words.emplace_back(*argument);
  }
  const std::vector<char*> command = argumentVector(words);
  execv(command[0], command.data());
  std::fprintf(stderr, "%s: %s\n", script.c_str(), std::strerror(errno));
  return EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<char*> arguments(argv, argv + argc + 1);
  testing::InitGoogleTest(&argc, argv);
  const bool decided =
      std::getenv("PRIVATE_ROOT") != nullptr || std::getenv("PRIVATE_ROOT_MISSING") != nullptr;
  if (!decided && !testing::GTEST_FLAG(list_tests)) {
    return enterPrivateRoot(const_cast<char**>(arguments.data()));
  }
  return RUN_ALL_TESTS();
}
