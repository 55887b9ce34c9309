// Preparing and repairing a recording disk: by the daemon, and by its tools alone.

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "Commands.h"
#include "Stub.h"

namespace bench {

namespace {

constexpr const char* toLog = " 1>/tmp/tools.log 2>&1";

void run(const std::string& command) {
  if (std::system(command.c_str()) != 0) {
    throw std::runtime_error(command + " failed");
  }
}

/// Ignores the exit status, as the daemon does: nothing is mounted, and there may be no system log.
void tryToRun(const std::string& command) {
  if (std::system(command.c_str()) == -1) {
    throw std::runtime_error(errorText(command));
  }
}

void tryToUnmount(const std::string& node) {
  tryToRun("umount -f " + node + " 1>/dev/null 2>&1");
}

void passLog() {
  tryToRun("logger -s -t Dockhand </tmp/tools.log 2>/dev/null");
}

}  // namespace

void prepareAndRepair(const Arguments& arguments) {
  const auto device = static_cast<std::int16_t>(number(arguments.at(0)));
  Stub stub;
  bool done = false;
  report("prepare", timed([&] { done = stub->PrepareDeviceForPvr(device); }));
  if (!done) {
    throw std::runtime_error("PrepareDeviceForPvr failed");
  }
  report("repair", timed([&] { done = stub->RunDiskRepair(device); }));
  if (!done) {
    throw std::runtime_error("RunDiskRepair failed");
  }
}

void runTools(const Arguments& arguments) {
  const std::string& disk = arguments.at(0);
  const std::string partition = disk + '1';
  report("prepare", timed([&] {
           tryToUnmount(partition);
           run("sfdisk -l " + disk + toLog);
           passLog();
           run("dd if=/dev/zero of=" + disk + " bs=512 count=1" + toLog);
           run("echo -e 'n\\np\\n1\\n\\n\\nw' | fdisk " + disk + toLog);
           passLog();
           // Sleep as the daemon does. A tool takes longer after a pause, because processors have gone to
           // sleep and the disk has been written to.
           sleep(4);
           tryToUnmount(partition);
           run("mkfs.xfs -f -l lazy-count=0 -L \"PVR_DISK\" " + partition + toLog);
           sleep(2);
         }));
  report("repair", timed([&] {
           tryToUnmount(partition);
           run("xfs_repair " + partition + toLog);
           passLog();
         }));
}

}  // namespace bench
