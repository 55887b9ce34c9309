// Mounting and unmounting one stick, in four ways.

#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "Bare.h"
#include "Bus.h"
#include "Commands.h"
#include "Stub.h"

namespace bench {

namespace {

/// Opens and closes in turn, and reports the shortest time of each. Mounting waits for threads of the kernel,
/// which other work of the machine delays.
template <typename Open, typename Close>
void openAndCloseInTurn(std::size_t count, const Open& open, const Close& close) {
  open();
  close();
  std::vector<double> opening;
  std::vector<double> closing;
  for (std::size_t i = 0; i < count; ++i) {
    opening.push_back(timed(open));
    closing.push_back(timed(close));
  }
  report("open", quantile(opening, 0));
  report("close", quantile(closing, 0));
}

void require(bool done, const char* what) {
  if (!done) {
    throw std::runtime_error(std::string(what) + " failed");
  }
}

void runProgram(std::vector<std::string> words) {
  std::vector<char*> pointers;
  for (std::string& word : words) {
    pointers.push_back(word.data());
  }
  pointers.push_back(nullptr);
  pid_t child = 0;
  int status = -1;
  if (posix_spawnp(&child, pointers[0], nullptr, nullptr, pointers.data(), environ) != 0 ||
      waitpid(child, &status, 0) != child || status != 0) {
    throw std::runtime_error(words[0] + " failed");
  }
}

}  // namespace

void openAndClose(const Arguments& arguments) {
  const auto device = static_cast<std::int16_t>(number(arguments.at(0)));
  Stub stub;
  openAndCloseInTurn(
      number(arguments.at(1)), [&] { require(stub->OpenDevice(device), "OpenDevice"); },
      [&] { require(stub->CloseDevice(device), "CloseDevice"); });
}

void peerMountAndUnmount(const Arguments& arguments) {
  const std::string& object = arguments.at(0);
  Bus bus;
  openAndCloseInTurn(
      number(arguments.at(1)), [&] { bus.callFilesystem(object, "Mount"); },
      [&] { bus.callFilesystem(object, "Unmount"); });
}

void openOnly(const Arguments& arguments) {
  Stub stub;
  require(stub->OpenDevice(static_cast<std::int16_t>(number(arguments.at(0)))), "OpenDevice");
}

void closeOnly(const Arguments& arguments) {
  Stub stub;
  require(stub->CloseDevice(static_cast<std::int16_t>(number(arguments.at(0)))), "CloseDevice");
}

void peerCall(const Arguments& arguments) {
  Bus bus;
  bus.callFilesystem(arguments.at(0), arguments.at(1).c_str());
}

void mountProgram(const Arguments& arguments) {
  const std::string& node = arguments.at(0);
  const std::string& target = arguments.at(1);
  mkdir(target.c_str(), 0775);
  openAndCloseInTurn(
      number(arguments.at(2)),
      [&] {
        runProgram({"mount", "-t", "ext3", "-o", "nosuid", node, target});
      },
      [&] {
        runProgram({"umount", target});
      });
  rmdir(target.c_str());
}

void bareOpenAndClose(const Arguments& arguments) {
  const std::string& node = arguments.at(0);
  const std::string& target = arguments.at(1);
  openAndCloseInTurn(
      number(arguments.at(2)), [&] { bareOpen(node, target); }, [&] { bareClose(target); });
}

}  // namespace bench
