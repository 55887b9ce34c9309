// Failures between the program and the daemon, and on the command line.

#include <sys/stat.h>
#include <unistd.h>

#include <thread>

#include "CtlTest.h"
#include "TUnixServerSocket.h"

namespace ctltest {
namespace {

class Failures : public CtlTest {
 protected:
  static std::string otherDirectory(const std::string& name) {
    const std::string path = service().sockets.path() / name;
    mkdir(path.c_str(), 0700);
    return path;
  }
};

TEST_F(Failures, SaysThatNobodyServesTheSocket) {
  const std::string directory = otherDirectory("nobody");
  EXPECT_THAT(run({"list"}, {{{"RAVEL_SOCKET_DIR", directory}}}),
              Ends(4, "", "dockhandctl: nobody serves \"" + directory + "/9020.sock\"; start dockhand\n"));
}

TEST_F(Failures, SaysThatADirectoryIsTooLongForASocket) {
  EXPECT_THAT(run({"list"}, {{{"RAVEL_SOCKET_DIR", "/" + std::string(200, 'x')}}}),
              Ends(4, "", HasSubstr("too long")));
}

TEST_F(Failures, NamesTheRightsOfASocketThatMayNotBeUsed) {
  if (getuid() != 0) {
    GTEST_SKIP() << "only root can become another user";
  }
  RunOptions asNobody;
  asNobody.asNobody = true;
  const std::string directory = service().sockets.path();
  ASSERT_EQ(chmod(directory.c_str(), 0755), 0);
  EXPECT_THAT(run({"list"}, asNobody), Ends(4, "",
                                            AllOf(HasSubstr("no permission for \"" + socketOf(9020) + "\""),
                                                  HasSubstr("group root, mode 0660"))));
  ASSERT_EQ(chmod(directory.c_str(), 0700), 0);
  EXPECT_THAT(run({"list"}, asNobody),
              Ends(4, "", HasSubstr("\"" + directory + "\" belongs to root and group root, mode 0700")));
}

TEST_F(Failures, SaysThatAllWorkersAreBusy) {
  std::vector<std::unique_ptr<UsbClient>> ten;
  for (int i = 0; i < 10; ++i) {
    ten.push_back(std::make_unique<UsbClient>());
    (*ten.back())->IsDeviceOpen(1);
  }
  EXPECT_THAT(run({"--timeout", "0.2", "list"}),
              Ends(6, "", HasSubstr("all ten workers of dockhand may be busy")));
  // The free worker first serves the connections that wait from before.
  ten.pop_back();
  EXPECT_THAT(run({"list"}), Ends(0, "", ""));
}

TEST_F(Failures, PassesTheDaemonsFailuresOn) {
  platform().scandirIgnoresFilter = true;
  platform().deviceNodes = {"short"};
  EXPECT_THAT(run({"list"}), Ends(5, "", HasSubstr("dockhand replied with a failure: ")));
  platform().scandirIgnoresFilter = false;
}

/// Serves another socket directory: accepts one connection and replies with these bytes.
class OddService {
 public:
  OddService(const std::string& directory, const std::string& answer) {
    setenv("RAVEL_SOCKET_DIR", directory.c_str(), 1);
    socket_ = std::make_unique<ravel::rpc::TUnixServerSocket>(9020);
    setenv("RAVEL_SOCKET_DIR", service().sockets.path().c_str(), 1);
    thread_ = std::thread([this, answer] {
      const auto connection = socket_->accept();
      std::uint8_t request = 0;
      connection->read(&request, 1);
      connection->write(reinterpret_cast<const std::uint8_t*>(answer.data()),
                        static_cast<std::uint32_t>(answer.size()));
    });
  }
  ~OddService() { thread_.join(); }

 private:
  std::unique_ptr<ravel::rpc::TUnixServerSocket> socket_;
  std::thread thread_;
};

TEST_F(Failures, SayThatTheConnectionEndedBeforeItsReply) {
  const std::string directory = otherDirectory("silent");
  const OddService silent(directory, "");
  EXPECT_THAT(run({"list"}, {{{"RAVEL_SOCKET_DIR", directory}}}),
              Ends(5, "", HasSubstr("the connection to dockhand ended before its reply")));
}

TEST_F(Failures, SayThatAReplyMakesNoSense) {
  const std::string directory = otherDirectory("rubbish");
  const OddService rubbish(directory, "\x80\x02 this is another version of the protocol, or none at all");
  EXPECT_THAT(run({"list"}, {{{"RAVEL_SOCKET_DIR", directory}}}), Ends(5, "", StartsWith("dockhandctl: ")));
}

TEST_F(Failures, SayThatTheOutputCannotBeWritten) {
  plugInStick();
  RunOptions toFullDisk;
  toFullDisk.outputFile = "/dev/full";
  EXPECT_THAT(run({"list"}, toFullDisk), Ends(9, "", HasSubstr("standard output cannot be written")));
}

TEST_F(Failures, InUsageAreExplained) {
  for (const Arguments& arguments :
       {Arguments{}, Arguments{"eject", "1"}, Arguments{"label"}, Arguments{"label", "x"},
        Arguments{"label", "32768"}, Arguments{"label", "1", "2"}, Arguments{"list", "--what"},
        Arguments{"--timeout", "0", "list"}, Arguments{"--timeout", "x", "list"}}) {
    EXPECT_THAT(run(arguments), Ends(2, "", AllOf(StartsWith("dockhandctl: "), HasSubstr("--help"))));
  }
}

TEST_F(Failures, DoNotComeFromATimeoutAfterTheCommand) {
  EXPECT_THAT(run({"list", "--timeout", "20"}), Ends(0, "", ""));
}

TEST_F(Failures, DoNotComeFromAskingForHelpOrVersion) {
  EXPECT_THAT(run({"--help"}), Ends(0, AllOf(HasSubstr("prepare"), HasSubstr("Exit status:")), ""));
  EXPECT_THAT(run({"call", "--help"}), Ends(0, HasSubstr("OpenDeviceAt deviceId:i16 mountPoint:string"), ""));
  EXPECT_THAT(run({"--version"}), Ends(0, StartsWith("dockhandctl "), ""));
}

}  // namespace
}  // namespace ctltest
