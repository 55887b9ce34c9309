#include "HostileTest.h"

#include <cstdlib>
#include <sstream>
#include <stdexcept>

#include "World.h"

namespace hostiletest {

namespace {

/// Returns the number behind a title in a file of /proc/PID.
std::size_t figureOf(const Daemon& daemon, const std::string& file, const std::string& title) {
  std::istringstream words(systest::readFile("/proc/" + std::to_string(daemon.pid()) + "/" + file));
  std::string word;
  while (words >> word) {
    if (word == title) {
      std::size_t figure = 0;
      words >> figure;
      return figure;
    }
  }
  throw std::runtime_error("the kernel does not tell " + title + " of a process");
}

}  // namespace

HostileTest::HostileTest() {
  // The daemon's log goes there too.
  setenv("TMPDIR", sockets_.path().c_str(), 1);
}

HostileTest::~HostileTest() {
  unsetenv("TMPDIR");
}

std::string HostileTest::socketOf(int number) const {
  return sockets_.path() / (std::to_string(number) + ".sock");
}

std::size_t descriptorsOf(const Daemon& daemon) {
  return systest::namesIn("/proc/" + std::to_string(daemon.pid()) + "/fd").size();
}

void expectConnections(const Daemon& daemon, std::size_t count) {
  EXPECT_TRUE(eventually([&] { return descriptorsOf(daemon) == descriptorsAtRest + count; }))
      << "there are " << descriptorsOf(daemon) << " descriptors";
}

std::size_t memoryOf(const Daemon& daemon) {
  return figureOf(daemon, "smaps_rollup", "Anonymous:");
}

std::size_t peakMemoryOf(const Daemon& daemon) {
  return figureOf(daemon, "status", "VmHWM:");
}

void expectSound(const Daemon& daemon) {
  EXPECT_TRUE(daemon.isRunning());
  EXPECT_THAT(daemon.log(), Not(HasSubstr("Sanitizer")));
  EXPECT_THAT(daemon.log(), Not(HasSubstr("runtime error:")));
}

}  // namespace hostiletest
