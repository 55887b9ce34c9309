// The daemon's socket and users without root rights: who may call, and who may replace the socket.

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "LocalSocketPath.h"
#include "SystemTest.h"
#include "Users.h"

namespace systest {
namespace {

namespace fs = std::filesystem;

constexpr gid_t callers = 4700;
const User outsider{4701, 4701, {}};
const User member{4702, 4702, {4710, callers}};
const User memberByFirstGroup{4703, callers, {}};

const std::string directory = "/run/ravel";
const std::string socketPath = directory + "/9020.sock";
const std::string lockPath = directory + "/9020.lock";

/// Owner, group and mode, such as "0 4700 660".
std::string rightsOf(const std::string& path) {
  return run({"stat", "--printf", "%u %g %a", path});
}

/// errno of a call that returns -1 for a failure; 0 if it succeeds.
int errorOf(int result) {
  return result == -1 ? errno : 0;
}

int connectError() {
  const int client = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_un address = ravel::rpc::localSocketAddress(socketPath);
  return errorOf(connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
}

class WhoMayCallTest : public SystemTest {
 protected:
  void SetUp() override {
    SystemTest::SetUp();
    if (!IsSkipped()) {
      fs::remove_all(directory);
    }
  }
};

TEST_F(WhoMayCallTest, SocketIsForRootAndTheDaemonsGroupInADirectoryOfRoot) {
  const Daemon daemon({}, callers);
  EXPECT_EQ(rightsOf(directory), "0 4700 755");
  EXPECT_EQ(rightsOf(socketPath), "0 4700 660");
  EXPECT_EQ(rightsOf(lockPath), "0 4700 600");
}

TEST_F(WhoMayCallTest, UserOutsideTheGroupIsRefused) {
  const Daemon daemon({}, callers);
  EXPECT_EQ(runAs(outsider, connectError), EACCES);
  const User withEveryOtherGroup{4704, 4704, {4699, 4701, 4702, 4710}};
  EXPECT_EQ(runAs(withEveryOtherGroup, connectError), EACCES);
  EXPECT_TRUE(daemon.isRunning());
}

TEST_F(WhoMayCallTest, MembersOfTheGroupAreServed) {
  const Daemon daemon({}, callers);
  for (const User& user : {member, memberByFirstGroup}) {
    const int answer = runAs(user, [] {
      UsbClient client;
      return client->IsDeviceOpen(1) ? 1 : 0;
    });
    EXPECT_EQ(answer, 0) << user.id;
  }
}

TEST_F(WhoMayCallTest, SocketOfADaemonWithoutItsOwnGroupIsForRootOnly) {
  const Daemon daemon;
  EXPECT_EQ(rightsOf(socketPath), "0 0 660");
  EXPECT_EQ(runAs(member, connectError), EACCES);
  EXPECT_EQ(connectError(), 0);
}

TEST_F(WhoMayCallTest, NeitherOutsidersNorMembersCanReplaceTheSocket) {
  const Daemon daemon({}, callers);
  const std::string own = directory + "/9021.sock";
  for (const User& user : {outsider, member}) {
    EXPECT_EQ(runAs(user, [] { return errorOf(unlink(socketPath.c_str())); }), EACCES);
    EXPECT_EQ(runAs(user, [&] { return errorOf(rename(socketPath.c_str(), own.c_str())); }), EACCES);
    EXPECT_EQ(runAs(user, [&] { return errorOf(symlink("/etc/passwd", own.c_str())); }), EACCES);
    EXPECT_EQ(runAs(user, [] { return errorOf(chmod(socketPath.c_str(), 0666)); }), EPERM);
    // A user who could hold the lock could prevent the next daemon from starting.
    EXPECT_EQ(runAs(user, [] { return errorOf(open(lockPath.c_str(), O_RDONLY | O_CLOEXEC)); }), EACCES);
  }
  EXPECT_THAT(namesIn(directory), ElementsAre("9020.lock", "9020.sock"));
}

class PlantedSocketDirectoryTest : public WhoMayCallTest {
 protected:
  void SetUp() override {
    WhoMayCallTest::SetUp();
    if (!IsSkipped()) {
      fs::remove_all(planted);
      fs::remove_all(rootsOwn);
    }
  }

  static void expectRefusal(const std::string& reason) {
    const FailedStart end = startThatFails({{"RAVEL_SOCKET_DIR", planted}});
    EXPECT_NE(end.status, 0);
    EXPECT_THAT(end.log, HasSubstr(planted + "/9020.sock: not made, since \"" + planted + "\" " + reason));
  }

  static inline const std::string planted = "/tmp/sockets";
  static inline const std::string rootsOwn = "/tmp/roots_own";
};

TEST_F(PlantedSocketDirectoryTest, OfAnotherUserIsRefusedAndKeptUnchanged) {
  ASSERT_EQ(runAs(outsider, [] { return errorOf(mkdir(planted.c_str(), 0755)); }), 0);
  ASSERT_EQ(runAs(outsider, [] { return errorOf(symlink("/etc/passwd", (planted + "/9020.sock").c_str())); }),
            0);
  expectRefusal("belongs to user 4701");
  EXPECT_THAT(namesIn(planted), ElementsAre("9020.sock"));
  EXPECT_EQ(readLink(planted + "/9020.sock"), "/etc/passwd");
}

TEST_F(PlantedSocketDirectoryTest, ThatIsASymbolicLinkIsRefusedAndNothingIsMadeAtItsTarget) {
  fs::create_directory(rootsOwn);
  ASSERT_EQ(runAs(outsider, [] { return errorOf(symlink(rootsOwn.c_str(), planted.c_str())); }), 0);
  expectRefusal("is a symbolic link");
  EXPECT_THAT(namesIn(rootsOwn), IsEmpty());
}

TEST_F(PlantedSocketDirectoryTest, ThatEverybodyMayWriteToIsRefused) {
  fs::create_directory(planted);
  for (const mode_t mode : {0777U, 01777U}) {
    ASSERT_EQ(chmod(planted.c_str(), mode), 0);
    expectRefusal("is writable by everybody");
  }
  EXPECT_THAT(namesIn(planted), IsEmpty());
}

TEST_F(PlantedSocketDirectoryTest, ThatIsAFileIsRefusedAndKeptUnchanged) {
  writeFile(planted, "somebody's notes");
  expectRefusal("is not a directory");
  EXPECT_EQ(readFile(planted), "somebody's notes");
}

}  // namespace
}  // namespace systest
