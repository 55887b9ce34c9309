#include "Fuzzing.h"

#include <cstdio>
#include <cstdlib>

#include "ModuleLog.h"
#include "ThriftOutput.h"

namespace fuzz {

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::size_t begin = 0;
  std::size_t end = 0;
  while ((end = text.find(separator, begin)) != std::string::npos) {
    parts.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  parts.push_back(text.substr(begin));
  return parts;
}

std::vector<std::string> fields(const std::string& text, std::size_t count) {
  std::vector<std::string> parts = split(text, '\0');
  parts.resize(count);
  return parts;
}

std::vector<std::string> directoryEntries(const std::string& text) {
  constexpr std::size_t maxBytes = 255;
  std::vector<std::string> names;
  for (const std::string& name : split(text, '/')) {
    if (!name.empty()) {
      names.push_back(name.substr(0, maxBytes));
    }
  }
  return names;
}

void require(bool holds, const char* whatMustHold) {
  if (!holds) {
    std::fprintf(stderr, "must hold, but does not: %s\n", whatMustHold);
    std::abort();
  }
}

void requireNothingOpen(const FakePlatform& platform) {
  require(platform.openDescriptors() == 0, "every descriptor is closed");
  require(platform.openDirectories() == 0, "every directory is closed");
  require(platform.liveProbes() <= 1, "at most one probe is kept");
}

}  // namespace fuzz

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  // There is no media service, because nobody can make this directory.
  setenv("RAVEL_SOCKET_DIR", "/proc/nowhere", 1);
  // All lines but the stack dumps: they show the fuzzer's functions and are slow.
  Dockhand::usbClientLog.context->setThreshold(2);
  // The daemon does the same with the messages of the RPC library.
  ravel::rpc::thriftOutput().setOutputFunction(
      [](const char* message) { Dockhand::usbClientLog.write(4, 14, message); });
  return 0;
}
