// The process: its start, its refusal to start, socket, threads, children and log.

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <regex>
#include <sstream>

#include "Eventually.h"
#include "SystemTest.h"

namespace systest {
namespace {

constexpr const char* socketPath = "/run/ravel/9020.sock";

class ProcessTest : public SystemTest {
 protected:
  void SetUp() override {
    SystemTest::SetUp();
    if (!IsSkipped()) {
      std::filesystem::remove_all("/run/ravel");
    }
  }

  /// Expects that the daemon's output has only log lines.
  static void expectLogLines(const Daemon& daemon) {
    const std::regex form(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z \d+ [1-5] \S+ \S+:\d+ .*)");
    for (const std::string& line : daemon.logLines()) {
      EXPECT_TRUE(std::regex_match(line, form)) << line;
    }
  }

  static mode_t modeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777U;
  }
};

TEST_F(ProcessTest, SecondDaemonRefusesToStartAndTheFirstKeepsServing) {
  const Daemon first;
  const FailedStart second = startThatFails();
  EXPECT_NE(second.status, 0);
  EXPECT_THAT(second.log, HasSubstr(socketPath));
  EXPECT_THAT(second.log, HasSubstr("serves it"));
  EXPECT_TRUE(first.isRunning());
  UsbClient client;
  EXPECT_FALSE(client->IsDeviceOpen(1));
}

TEST_F(ProcessTest, SocketOfAKilledDaemonIsReplaced) {
  Daemon killed;
  killed.kill();
  ASSERT_TRUE(std::filesystem::is_socket(socketPath));
  const Daemon daemon;
  UsbClient client;
  EXPECT_FALSE(client->IsDeviceOpen(1));
}

TEST_F(ProcessTest, FileAtTheSocketPathIsKept) {
  std::filesystem::create_directories("/run/ravel");
  writeFile(socketPath, "somebody's notes");
  const FailedStart end = startThatFails();
  EXPECT_NE(end.status, 0);
  EXPECT_THAT(end.log, HasSubstr(socketPath));
  EXPECT_EQ(readFile(socketPath), "somebody's notes");
}

TEST_F(ProcessTest, SocketIsForOwnerAndGroupInADirectoryForAll) {
  const mode_t before = umask(0);
  const Daemon daemon;
  umask(before);
  EXPECT_EQ(modeOf(socketPath), 0660U);
  EXPECT_EQ(modeOf("/run/ravel"), 0755U);
}

TEST_F(ProcessTest, HasAMainThreadAListenerAndTenWorkers) {
  const Daemon daemon;
  EXPECT_EQ(namesIn("/proc/" + std::to_string(daemon.pid()) + "/task").size(), 12U);
}

TEST_F(ProcessTest, ThreadsHaveStacksOfOneMegabyte) {
  const Daemon daemon;
  std::istringstream maps(readFile("/proc/" + std::to_string(daemon.pid()) + "/maps"));
  std::string line;
  const unsigned long stack = 1UL << 20U;
  const auto guard = static_cast<unsigned long>(getpagesize());
  bool afterGuard = false;
  unsigned long stacks = 0;
  while (std::getline(maps, line)) {
    unsigned long first = 0;
    unsigned long end = 0;
    std::string access(4, ' ');
    ASSERT_EQ(std::sscanf(line.c_str(), "%lx-%lx %4c", &first, &end, access.data()), 3) << line;
    const unsigned long size = end - first;
    if (access == "rw-p" && afterGuard && size == stack) {
      ++stacks;
    } else if (access == "rw-p" && size % (stack + guard) == 0) {
      // From glibc 2.42 and Linux 6.13 on, the guard is no mapping of its own, and neighbours are merged.
      stacks += size / (stack + guard);
    }
    afterGuard = access == "---p" && size == guard;
  }
  // The kernel may merge the topmost stack with the mapping above it.
  EXPECT_GE(stacks, 10U);
}

TEST_F(ProcessTest, ServesTenConnectionsAtATime) {
  const Daemon daemon;
  std::vector<std::unique_ptr<UsbClient>> clients;
  for (int i = 0; i < 10; ++i) {
    clients.push_back(std::make_unique<UsbClient>());
    EXPECT_FALSE((*clients.back())->IsDeviceOpen(1));
  }
  UsbClient eleventh;
  eleventh->send_IsDeviceOpen(1);
  clients.pop_back();
  EXPECT_FALSE(eleventh->recv_IsDeviceOpen());
}

TEST_F(ProcessTest, ChildrenInheritStandardDescriptorsOnly) {
  makeTool("readUsbVersion.sh", "ls -l /proc/self/fd >/tmp/inherited\necho 2.00\n");
  auto [stick, daemon, client] = serve({}, withTools());
  ASSERT_EQ(client.usbVersion(1).text, "2.00");
  std::istringstream list(readFile("/tmp/inherited"));
  std::string line;
  int standard = 0;
  const std::regex entry(R"(.* (\d+) -> (.*))");
  while (std::getline(list, line)) {
    std::smatch parts;
    if (!std::regex_match(line, parts, entry)) {
      continue;
    }
    if (std::stoi(parts[1]) <= STDERR_FILENO) {
      ++standard;
    } else {
      EXPECT_THAT(parts[2].str(), testing::MatchesRegex("/proc/[0-9]+/fd")) << line;
    }
  }
  EXPECT_EQ(standard, 3);
}

TEST_F(ProcessTest, UsbVersionIsTheFirstLineOfTheScript) {
  makeTool("readUsbVersion.sh", "echo \"3.10 of $1\"\necho more\n");
  auto [stick, daemon, client] = serve({}, withTools());
  EXPECT_TRUE(client.usbVersion(1).success);
  EXPECT_EQ(client.usbVersion(1).text, "3.10 of sda");
  EXPECT_FALSE(std::filesystem::exists("/tmp/sda_bcdUSB.txt"));
}

TEST_F(ProcessTest, WithoutTheVersionScriptThereIsNoUsbVersion) {
  auto [stick, daemon, client] = serve();
  EXPECT_FALSE(client.usbVersion(1).success);
  EXPECT_EQ(client.usbVersion(1).text, "");
  EXPECT_TRUE(daemon.isRunning());
}

TEST_F(ProcessTest, LogLinesHaveTheDocumentedForm) {
  auto [stick, daemon, client] = serve({}, Environment{{"TLOG_LEVEL", "2"}});
  ASSERT_TRUE(client->OpenDevice(1));
  ASSERT_TRUE(client->CloseDevice(1));
  EXPECT_GT(daemon.logLines().size(), 10U);
  expectLogLines(daemon);
}

TEST_F(ProcessTest, TraceLinesAreWrittenOnRequestOnly) {
  {
    const Daemon talkative(Environment{{"TLOG_LEVEL", "2"}});
    EXPECT_THAT(talkative.log(), HasSubstr(" 2 Dockhand.main Src/Dockhand/DockhandMain:19 "
                                           "Before Creating DockhandServer\n"));
    // The daemon may answer its first call before it logs this.
    EXPECT_TRUE(testsupport::eventually([&talkative] {
      return talkative.log().find(
                 " 2 Dockhand.main Src/Dockhand/DockhandMain:21 "
                 "After Creating DockhandServer\n") != std::string::npos;
    }));
  }
  const Stick stick({});
  const Daemon quiet(Environment{{"TLOG_LEVEL", "3"}});
  UsbClient client;
  ASSERT_TRUE(client->OpenDevice(1));
  EXPECT_THAT(quiet.log(), Not(HasSubstr("Creating DockhandServer")));
  EXPECT_THAT(quiet.log(), HasSubstr("OpenDeviceAt(1, /media/disk_1, isPvrDevice=0)"));
}

TEST_F(ProcessTest, SecondDaemonWithItsOwnSocketDirectoryServesToo) {
  const Daemon first;
  setenv("RAVEL_SOCKET_DIR", "/tmp/other_sockets", 1);
  {
    const Daemon second;
    EXPECT_TRUE(std::filesystem::is_socket("/tmp/other_sockets/9020.sock"));
  }
  unsetenv("RAVEL_SOCKET_DIR");
  EXPECT_TRUE(first.isRunning());
}

TEST_F(ProcessTest, GarbageOnTheSocketDoesNotHarmOtherClients) {
  const Daemon daemon;
  UsbClient client;
  const int rubbish = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, socketPath, sizeof address.sun_path - 1);
  ASSERT_EQ(connect(rubbish, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  const std::string text(64, '\xff');
  ASSERT_EQ(send(rubbish, text.data(), text.size(), MSG_NOSIGNAL), 64);
  char answer = 0;
  EXPECT_EQ(recv(rubbish, &answer, 1, 0), 0) << "the connection is not closed";
  close(rubbish);
  EXPECT_FALSE(client->IsDeviceOpen(1));
  EXPECT_TRUE(daemon.isRunning());
  expectLogLines(daemon);
}

}  // namespace
}  // namespace systest
