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
  mainLog.write(4, 14, message);
}

}  // namespace

/// Runs in the foreground until it is killed. A failure to start ends the process with the exception's text.
int main() {
  TlogInit();
  apache::thrift::GlobalOutput.setOutputFunction(logRpcMessage);
  Dockhand::LinuxPlatform platform;

  mainLog.write(2, 19, "Before Creating DockhandServer");
  const Dockhand::DockhandServer server(platform);
  mainLog.write(2, 21, "After Creating DockhandServer");

  constexpr unsigned int hour = 3600;
  while (true) {
    sleep(hour);
  }
}
