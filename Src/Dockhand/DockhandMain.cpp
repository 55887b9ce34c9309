#include <malloc.h>
#include <thrift/Thrift.h>
#include <unistd.h>

#include "DockhandServer.h"
#include "LinuxPlatform.h"
#include "ModuleLog.h"

namespace {

const Dockhand::ModuleLog mainLog{
    TlogContext::GetLogContext("Dockhand.main", "Src/Dockhand/DockhandMain", 10),
    "Src/Dockhand/DockhandMain"};

/// What the RPC library has to report (a client that vanished, no descriptors left to accept one) is a log
/// line like any other.
void logRpcMessage(const char* message) {
  mainLog.warning(14, message);
}

/// Keeps glibc from holding on to a megabyte for each worker once clients have sent texts of that size: it
/// would learn from them to serve such texts from its pool, and keep what they leave. What libblkid reads at
/// once, 260 KiB, is kept: to take it anew from the kernel would cost each probe more than its reading does.
/// And there is one pool for all workers, whose operations exclude one another anyway.
void keepLittleMemory() {
#ifdef M_MMAP_THRESHOLD
  constexpr int largeText = 320 * 1024;
  constexpr int mostKept = 512 * 1024;
  mallopt(M_MMAP_THRESHOLD, largeText);
  mallopt(M_TRIM_THRESHOLD, mostKept);
  mallopt(M_ARENA_MAX, 1);
#endif
}

}  // namespace

/// Runs in the foreground until it is killed. A failure to start ends the process with the exception's text.
int main() {
  TlogInit();
  keepLittleMemory();
  apache::thrift::GlobalOutput.setOutputFunction(logRpcMessage);
  Dockhand::LinuxPlatform platform;

  mainLog.trace(19, "Before Creating DockhandServer");
  const Dockhand::DockhandServer server(platform);
  mainLog.trace(21, "After Creating DockhandServer");

  constexpr unsigned int hour = 3600;
  while (true) {
    sleep(hour);
  }
}
