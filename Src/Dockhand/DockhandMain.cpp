#include <malloc.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <memory>

#include "DockhandServer.h"
#include "LinuxPlatform.h"
#include "ModuleLog.h"
#include "MountPolicy.h"
#include "ThriftOutput.h"

namespace {

const Dockhand::ModuleLog mainLog{
    TlogContext::GetLogContext("Dockhand.main", "Src/Dockhand/DockhandMain", 10),
    "Src/Dockhand/DockhandMain"};

/// Logs a message of the RPC library: a client that vanished, or no descriptor left to accept one.
void logRpcMessage(const char* message) {
  mainLog.warning(14, message);
}

/// See makeMountPolicy. Logs the reason of a failure too, because nobody may read standard error.
std::unique_ptr<Dockhand::MountPolicy> startMountPolicy(Dockhand::Platform& platform) {
  try {
    auto policy = Dockhand::makeMountPolicy(platform);
    if (policy != nullptr) {
      mainLog.notice(16, "mounts follow the policy ", std::getenv("DOCKHAND_MOUNTS"));
    }
    return policy;
  } catch (const std::exception& error) {
    mainLog.error(17, error.what());
    throw;
  }
}

/// Limits the freed memory that glibc keeps. By default glibc adapts to the largest texts of clients: it
/// serves them from its pools, and keeps up to a megabyte for each worker.
void limitKeptMemory() {
#ifdef M_MMAP_THRESHOLD
  // libblkid reads 260 KiB at once, which the pool must keep: to get it from the kernel again would cost each
  // probe more than its reading.
  constexpr int minMapped = 320 * 1024;
  constexpr int maxKept = 512 * 1024;
  mallopt(M_MMAP_THRESHOLD, minMapped);
  mallopt(M_TRIM_THRESHOLD, maxKept);
  // One pool for all workers: their operations exclude one another anyway.
  mallopt(M_ARENA_MAX, 1);
#endif
}

}  // namespace

/// Runs in the foreground until it is killed. A failure to start ends the process with the exception's text.
int main() {
  TlogInit();
  limitKeptMemory();
  ravel::rpc::thriftOutput().setOutputFunction(logRpcMessage);
  Dockhand::LinuxPlatform system;
  const std::unique_ptr<Dockhand::MountPolicy> policy = startMountPolicy(system);
  Dockhand::Platform& platform = policy != nullptr ? static_cast<Dockhand::Platform&>(*policy) : system;

  mainLog.trace(19, "Before Creating DockhandServer");
  const Dockhand::DockhandServer server(platform);
  mainLog.trace(21, "After Creating DockhandServer");

  constexpr unsigned int hour = 3600;
  while (true) {
    sleep(hour);
  }
}
