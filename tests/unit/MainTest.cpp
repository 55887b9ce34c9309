// main, the real server and the real logging library together, in a child process of the test.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <stdexcept>
#include <string>

#include "Connection.h"
#include "DeathTestStyle.h"
#include "Emulator.h"
#include "Sleep.h"
#include "SocketDirectory.h"
#include "ThriftOutput.h"
#include "Tlog.h"
#include "usb_rpc_gen_.h"

// main() of DockhandMain.cpp, renamed because this program has its own.
int dockhandMain();

namespace {

/// Environment variable: the name of a context that the logging library does not have.
constexpr const char* contextThatIsNull = "DOCKHAND_TEST_NULL_CONTEXT";

}  // namespace

// TlogContext::GetLogContext: the linker's --wrap gives the function these names.
extern "C" {
TlogContext* __real__ZN11TlogContext13GetLogContextEPKcS1_i(const char* name, const char* file, int line);
TlogContext* __wrap__ZN11TlogContext13GetLogContextEPKcS1_i(const char* name, const char* file, int line) {
  const char* const null = std::getenv(contextThatIsNull);
  return null != nullptr && std::string(null) == name
             ? nullptr
             : __real__ZN11TlogContext13GetLogContextEPKcS1_i(name, file, line);
}
}

namespace {

using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::ExitedWithCode;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
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

/// A regular expression for a line of level 2: "CONTEXT PLACE TEXT".
std::string line(const std::string& text) {
  return "[^\n]*Z [0-9]+ 2 " + text + '\n';
}

/// The lines of the start in one context, and the sleeps after them.
std::string startOfMain(const std::string& context) {
  const std::string place = context + " Src/Dockhand/DockhandMain:";
  return line(place + "19 Before Creating DockhandServer") +
         line(place + "21 After Creating DockhandServer") + "sleep 3600\nsleep 3600\n";
}
std::string startOfServer(const std::string& context) {
  const std::string place = context + " Src/Dockhand/DockhandServer:";
  return line(place + "11 Before creating DockhandClient") +
         line(place + "13 After creating DockhandClient") +
         line(place + "15 Before starting rpcServer\\.start") +
         line(place + "17 After starting rpcServer\\.start") + "sleep 3600\nsleep 3600\n";
}

/// Each child starts the program again, because a process sets up the logging library only once.
class MainTest : public ::testing::Test {
 protected:
  MainTest() {
    useStyleForThreads();
    unsetenv("TLOG_TARGET");
    unsetenv("TLOG_LEVEL");
    unsetenv("DOCKHAND_MOUNTS");
    unsetenv(contextThatIsNull);
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

TEST_F(MainDeathTest, LogsItsStartToEachContextByItself) {
  setenv("TLOG_LEVEL", "6,Dockhand.main=2", 1);
  EXPECT_EXIT(runDaemon(), ExitedWithCode(0), MatchesRegex(startOfMain("Dockhand\\.main")));
  setenv("TLOG_LEVEL", "6,Dockhand.UsbServer=2", 1);
  EXPECT_EXIT(runDaemon(), ExitedWithCode(0), MatchesRegex(startOfServer("Dockhand\\.UsbServer")));
}

TEST_F(MainDeathTest, LogsItsStartWhereThereIsNoContext) {
  if (isEmulated()) {
    GTEST_SKIP() << "the child is a copy, whose contexts are there already";
  }
  setenv("TLOG_LEVEL", "6", 1);
  setenv(contextThatIsNull, "Dockhand.main", 1);
  EXPECT_EXIT(runDaemon(), ExitedWithCode(0), MatchesRegex(startOfMain("-")));
  setenv(contextThatIsNull, "Dockhand.UsbServer", 1);
  EXPECT_EXIT(runDaemon(), ExitedWithCode(0), MatchesRegex(startOfServer("-")));
}

TEST_F(MainDeathTest, DoesNotDependOnTheSignalDispositionsOfItsParent) {
  EXPECT_EXIT(
      {
        std::signal(SIGPIPE, SIG_DFL);
        std::signal(SIGCHLD, SIG_IGN);
        runDaemon([] {
          const int standardError = dup(STDERR_FILENO);
          int ends[2] = {-1, -1};
          if (pipe(ends) != 0 || close(ends[0]) != 0 || dup2(ends[1], STDERR_FILENO) < 0) {
            std::exit(2);
          }
          ravel::rpc::thriftOutput()("nobody reads this");
          dup2(standardError, STDERR_FILENO);
          const int status = std::system("exit 3");
          std::cerr << "command: " << WEXITSTATUS(status) << std::endl;
        });
      },
      ExitedWithCode(0), HasSubstr("command: 3\n"));
}

TEST_F(MainDeathTest, DoesNotLogItsStartAtTheDefaultThreshold) {
  EXPECT_EXIT(runDaemon(), ExitedWithCode(0),
              AllOf(HasSubstr("sleep 3600"), Not(HasSubstr("DockhandServer"))));
}

TEST_F(MainDeathTest, ServesWhileItSleeps) {
  EXPECT_EXIT(runDaemon([] {
                testsupport::Connection<ravel::rpc::usb_rpc_gen_Client> client;
                const bool opened = client->OpenDevice(-1);
                std::cerr << "open: " << opened << std::endl;
              }),
              ExitedWithCode(0), ContainsRegex("Src/Dockhand/DockhandClient:640 OpenDeviceAt.*open: 0\n"));
}

TEST_F(MainDeathTest, LogsWhatTheRpcLibraryReports) {
  EXPECT_EXIT(runDaemon([] { ravel::rpc::thriftOutput()("a client is gone, 100%"); }), ExitedWithCode(0),
              ContainsRegex(" 4 Dockhand.main Src/Dockhand/DockhandMain:14 a client is gone, 100%\n"));
}

/// A file with a mount policy. The child, which runs the test again, gets the name from the parent, which
/// removes the file.
class MountPolicyTest : public MainTest {
 protected:
  void SetUp() override {
    if (geteuid() != 0) {
      GTEST_SKIP() << "a mount policy must be root's";
    }
    if (const char* const made = std::getenv(nameOfFile)) {
      path_ = made;
      return;
    }
    path_ = std::filesystem::temp_directory_path() / "dockhand-test-XXXXXX-mounts";
    const int file = mkstemps(path_.data(), 7);
    ASSERT_GE(file, 0);
    close(file);
    setenv(nameOfFile, path_.c_str(), 1);
    isOurs_ = true;
  }
  ~MountPolicyTest() override {
    if (isOurs_) {
      std::filesystem::remove(path_);
      unsetenv(nameOfFile);
    }
  }

  void setPolicy(const std::string& text) const {
    std::ofstream(path_) << text;
    setenv("DOCKHAND_MOUNTS", path_.c_str(), 1);
  }

 private:
  static constexpr const char* nameOfFile = "DOCKHAND_TEST_MOUNT_POLICY";
  std::string path_;
  bool isOurs_ = false;
};
using MountPolicyDeathTest = MountPolicyTest;

TEST_F(MountPolicyDeathTest, IsFollowedAndNamed) {
  EXPECT_EXIT(
      {
        setPolicy("exfat exfat nodev\n");
        runDaemon();
      },
      ExitedWithCode(0),
      ContainsRegex(" 3 Dockhand.main Src/Dockhand/DockhandMain:16 mounts follow the policy /.*-mounts\n"));
}

TEST_F(MountPolicyDeathTest, IsNotReadWithoutTheVariable) {
  EXPECT_EXIT(
      {
        setPolicy("rubbish\n");
        setenv("DOCKHAND_MOUNTS", "", 1);
        runDaemon();
      },
      ExitedWithCode(0), Not(HasSubstr("policy")));
}

TEST_F(MountPolicyDeathTest, EndsTheStartWithAReasonIfALineIsBad) {
  EXPECT_EXIT(
      {
        setPolicy("exfat exfat nodev\nvfat\n");
        try {
          runDaemon();
        } catch (const std::runtime_error& error) {
          std::cerr << "main throws: " << error.what() << std::endl;
          std::exit(3);
        }
      },
      ExitedWithCode(3),
      AllOf(ContainsRegex(
                " 5 Dockhand.main Src/Dockhand/DockhandMain:17 mount policy \"/.*-mounts\": line 2: "),
            ContainsRegex("main throws: mount policy \"/.*-mounts\": line 2: a row has three columns")));
}

}  // namespace
