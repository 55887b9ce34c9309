// main, the real server and the real logging library together, in a child process of the test.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thrift/Thrift.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <memory>

#include "DeathTestStyle.h"
#include "Sleep.h"
#include "SocketDirectory.h"
#include "TUnixSocket.h"
#include "usb_rpc_gen_.h"

// main() of DockhandMain.cpp, renamed because this program has its own.
int dockhandMain();

namespace {

using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::ExitedWithCode;
using ::testing::HasSubstr;
using ::testing::Not;

/// Runs the daemon until its main thread sleeps for the second time. `asleep` runs in its first sleep.
[[noreturn]] void runDaemon(const std::function<void()>& asleep = [] {}) {
  const SocketDirectory sockets;
  int sleeps = 0;
  onSleep = [&](unsigned int seconds) {
    std::cerr << "sleep " << seconds << std::endl;
    if (++sleeps == 1) {
      asleep();
      return 0U;
    }
    std::filesystem::remove_all(sockets.path());
    std::exit(0);
  };
  dockhandMain();
  std::exit(1);
}

/// Each child starts the program again, because a process sets up the logging library only once.
class MainTest : public ::testing::Test {
 protected:
  MainTest() {
    useStyleForThreads();
    unsetenv("TLOG_TARGET");
    unsetenv("TLOG_LEVEL");
  }
};
using MainDeathTest = MainTest;

TEST_F(MainDeathTest, LogsBeforeAndAfterItsStartAndSleepsAnHourAtATimeForever) {
  setenv("TLOG_LEVEL", "2", 1);
  EXPECT_EXIT(runDaemon(), ExitedWithCode(0),
              ContainsRegex(" 2 Dockhand.main Src/Dockhand/DockhandMain:19 Before Creating DockhandServer\n.*"
                            "Src/Dockhand/DockhandServer:11 Before creating DockhandClient\n.*"
                            "Src/Dockhand/DockhandServer:17 After starting rpcServer.start\n"
                            ".* 2 Dockhand.main Src/Dockhand/DockhandMain:21 After Creating DockhandServer\n"
                            "sleep 3600\n"
                            "sleep 3600\n"));
}

TEST_F(MainDeathTest, DoesNotLogItsStartAtTheDefaultThreshold) {
  EXPECT_EXIT(runDaemon(), ExitedWithCode(0),
              AllOf(HasSubstr("sleep 3600"), Not(HasSubstr("DockhandServer"))));
}

TEST_F(MainDeathTest, ServesWhileItSleeps) {
  EXPECT_EXIT(runDaemon([] {
                using apache::thrift::protocol::TBinaryProtocol;
                using apache::thrift::transport::TBufferedTransport;
                const auto socket = std::make_shared<ravel::rpc::TUnixSocket>("localhost", 9020);
                socket->open();
                ravel::rpc::usb_rpc_gen_Client client(
                    std::make_shared<TBinaryProtocol>(std::make_shared<TBufferedTransport>(socket)));
                const bool opened = client.OpenDevice(-1);
                std::cerr << "open: " << opened << std::endl;
              }),
              ExitedWithCode(0), ContainsRegex("Src/Dockhand/DockhandClient:640 OpenDeviceAt.*open: 0\n"));
}

TEST_F(MainDeathTest, LogsWhatTheRpcLibraryReports) {
  EXPECT_EXIT(runDaemon([] { apache::thrift::GlobalOutput("a client is gone, 100%"); }), ExitedWithCode(0),
              ContainsRegex(" 4 Dockhand.main Src/Dockhand/DockhandMain:14 a client is gone, 100%\n"));
}

}  // namespace
