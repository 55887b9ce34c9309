#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <exception>
#include <fstream>
#include <future>
#include <optional>

#include "IdleCrowd.h"
#include "TUnixServerSocket.h"
#include "TUnixSocket.h"
#include "ThriftOutput.h"
#include "TransportTestSupport.h"

using apache::thrift::TOutput;
using apache::thrift::transport::TSocket;
using apache::thrift::transport::TTransport;
using apache::thrift::transport::TTransportException;

namespace ravel::rpc {
namespace {

using transport_test::errorText;
using transport_test::errorType;
using transport_test::fillBacklog;
using transport_test::openDescriptors;
using transport_test::plainListener;
using transport_test::TransportError;
using transport_test::transportError;

class TUnixServerSocketTest : public transport_test::SocketDirectoryTest {
 protected:
  std::string path() const { return (directory_ / "9020.sock").string(); }
  std::string lockPath() const { return (directory_ / "9020.lock").string(); }

  static mode_t modeOf(const std::string& file) {
    struct stat status {};
    EXPECT_EQ(lstat(file.c_str(), &status), 0) << file;
    return status.st_mode & 07777U;
  }

  static constexpr const char* alreadyServed =
      ": another process serves it; stop that, or set another RAVEL_SOCKET_DIR";

  static std::string refusal(const std::filesystem::path& directory, const std::string& reason) {
    return (directory / "9020.sock").string() + ": not made, since \"" + directory.string() + "\" " + reason +
           "; use a directory of root or of this user that is not writable by everybody";
  }

  static std::string constructionError() {
    return errorText([] { TUnixServerSocket server(9020); });
  }

  /// A client sends one byte, which the accepted connection receives.
  static void expectServes(TUnixServerSocket& server) {
    TUnixSocket client("localhost", 9020);
    client.open();
    const std::shared_ptr<TTransport> connection = server.accept();
    const std::uint8_t sent = 42;
    client.write(&sent, 1);
    std::uint8_t received = 0;
    ASSERT_EQ(connection->read(&received, 1), 1U);
    EXPECT_EQ(received, sent);
  }
};

TEST_F(TUnixServerSocketTest, CarriesBytesBetweenAClientAndAnAcceptedConnection) {
  TUnixServerSocket server(9020);
  expectServes(server);
}

TEST_F(TUnixServerSocketTest, TakesConnectionsBeforeAnybodyAccepts) {
  TUnixServerSocket server(9020);
  TUnixSocket client("localhost", 9020);
  client.open();
  EXPECT_TRUE(client.isOpen());
}

TEST_F(TUnixServerSocketTest, SetsTheModesWhateverTheUmask) {
  for (const mode_t mask : {0U, 077U, 0777U}) {
    std::filesystem::remove_all(directory_);
    const mode_t before = umask(mask);
    {
      TUnixServerSocket server(9020);
      umask(before);
      EXPECT_EQ(modeOf(directory_), 0755U) << mask;
      EXPECT_EQ(modeOf(path()), 0660U) << mask;
      EXPECT_EQ(modeOf(lockPath()) & 077U, 0U) << mask;
    }
    umask(before);
  }
}

TEST_F(TUnixServerSocketTest, LeavesTheModeOfAnExistingDirectory) {
  ASSERT_EQ(chmod(directory_.c_str(), 0710), 0);
  TUnixServerSocket server(9020);
  EXPECT_EQ(modeOf(directory_), 0710U);
}

TEST_F(TUnixServerSocketTest, ReplacesASocketThatNobodyServes) {
  plainListener(path(), 1).reset();
  ASSERT_TRUE(std::filesystem::is_socket(path()));
  TUnixServerSocket server(9020);
  expectServes(server);
}

TEST_F(TUnixServerSocketTest, RefusesASecondServer) {
  TUnixServerSocket first(9020);
  EXPECT_EQ(constructionError(), path() + alreadyServed);
  expectServes(first);
}

TEST_F(TUnixServerSocketTest, RefusesASecondServerEvenWhenTheSocketWasRemoved) {
  TUnixServerSocket first(9020);
  std::filesystem::remove(path());
  EXPECT_EQ(constructionError(), path() + alreadyServed);
}

TEST_F(TUnixServerSocketTest, ServesTwoNumbersSideBySide) {
  TUnixServerSocket other(9014);
  TUnixServerSocket server(9020);
  expectServes(server);
}

TEST_F(TUnixServerSocketTest, LeavesAListenerWithoutALockAlone) {
  const FileDescriptor listener = plainListener(path(), 1);
  EXPECT_EQ(constructionError(), path() + alreadyServed);
  TUnixSocket client("localhost", 9020);
  EXPECT_NO_THROW(client.open());
}

TEST_F(TUnixServerSocketTest, LeavesAListenerWithAFullBacklogAlone) {
  const FileDescriptor listener = plainListener(path(), 0);
  const auto waiting = fillBacklog(path());
  EXPECT_EQ(constructionError(), path() + alreadyServed);
  EXPECT_TRUE(std::filesystem::is_socket(path()));
}

TEST_F(TUnixServerSocketTest, LeavesADatagramSocketAlone) {
  const FileDescriptor datagrams(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const sockaddr_un address = localSocketAddress(path());
  ASSERT_EQ(bind(datagrams.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  EXPECT_EQ(constructionError().rfind(path() + ": not replaced, since another process may serve it: ", 0),
            0U);
  EXPECT_TRUE(std::filesystem::is_socket(path()));
}

TEST_F(TUnixServerSocketTest, LeavesAFileAlone) {
  std::ofstream(path()) << "precious";
  EXPECT_EQ(constructionError(), path() + ": not a socket, so not replaced; remove it");
  std::string content;
  std::ifstream(path()) >> content;
  EXPECT_EQ(content, "precious");
}

TEST_F(TUnixServerSocketTest, LeavesADirectoryAlone) {
  std::filesystem::create_directory(path());
  EXPECT_EQ(constructionError(), path() + ": not a socket, so not replaced; remove it");
  EXPECT_TRUE(std::filesystem::is_directory(path()));
}

TEST_F(TUnixServerSocketTest, LeavesASymbolicLinkAndItsTargetAlone) {
  const std::string target = (directory_ / "stale").string();
  plainListener(target, 1).reset();
  std::filesystem::create_symlink(target, path());
  EXPECT_EQ(constructionError(), path() + ": not a socket, so not replaced; remove it");
  EXPECT_TRUE(std::filesystem::is_symlink(path()));
  EXPECT_TRUE(std::filesystem::is_socket(target));
}

TEST_F(TUnixServerSocketTest, ReplacesAStaleSocketWhoseTimesAreBeyond2038) {
  plainListener(path(), 1).reset();
  const timespec times[] = {{4102444800, 0}, {4102444800, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, path().c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
  TUnixServerSocket server(9020);
  expectServes(server);
}

TEST_F(TUnixServerSocketTest, DoesNotFollowASymbolicLinkInPlaceOfTheLock) {
  const std::string target = (directory_ / "elsewhere").string();
  std::filesystem::create_symlink(target, lockPath());
  EXPECT_EQ(constructionError().rfind(path() + ": open of \"" + lockPath() + "\": ", 0), 0U);
  EXPECT_FALSE(std::filesystem::exists(target));
}

TEST_F(TUnixServerSocketTest, RefusesADirectoryThatEverybodyMayWriteToWithOrWithoutStickyBit) {
  for (const mode_t mode : {0777U, 01777U, 0757U}) {
    ASSERT_EQ(chmod(directory_.c_str(), mode), 0);
    EXPECT_EQ(constructionError(), refusal(directory_, "is writable by everybody"));
  }
  EXPECT_TRUE(std::filesystem::is_empty(directory_));
}

TEST_F(TUnixServerSocketTest, TakesADirectoryThatItsGroupMayWriteTo) {
  ASSERT_EQ(chmod(directory_.c_str(), 0770), 0);
  TUnixServerSocket server(9020);
  expectServes(server);
}

TEST_F(TUnixServerSocketTest, RefusesASymbolicLinkInPlaceOfTheDirectory) {
  const std::filesystem::path real = directory_ / "real";
  std::filesystem::create_directory(real);
  for (const std::filesystem::path& target : {real, directory_ / "missing"}) {
    const std::filesystem::path link = directory_ / "link";
    std::filesystem::remove(link);
    std::filesystem::create_symlink(target, link);
    setenv("RAVEL_SOCKET_DIR", link.c_str(), 1);
    EXPECT_EQ(constructionError(), refusal(link, "is a symbolic link"));
  }
  EXPECT_TRUE(std::filesystem::is_empty(real));
  EXPECT_FALSE(std::filesystem::exists(directory_ / "missing"));
}

TEST_F(TUnixServerSocketTest, RefusesAFileInPlaceOfTheDirectory) {
  const std::filesystem::path file = directory_ / "file";
  std::ofstream(file) << "precious";
  setenv("RAVEL_SOCKET_DIR", file.c_str(), 1);
  EXPECT_EQ(constructionError(), refusal(file, "is not a directory"));
  EXPECT_EQ(std::filesystem::file_size(file), 8U);
}

TEST_F(TUnixServerSocketTest, NamesPathAndReasonWhenTheDirectoryCannotBeMade) {
  setenv("RAVEL_SOCKET_DIR", (directory_ / "no/such").c_str(), 1);
  const std::string directory = (directory_ / "no/such").string();
  EXPECT_EQ(constructionError(),
            directory + "/9020.sock: mkdir of \"" + directory + "\": " + TOutput::strerror_s(ENOENT));
}

TEST_F(TUnixServerSocketTest, RefusesATooLongPathBeforeItTouchesAnything) {
  const std::filesystem::path deep = directory_ / std::string(100, 'd');
  setenv("RAVEL_SOCKET_DIR", deep.c_str(), 1);
  EXPECT_NE(constructionError().find("too long for a local socket"), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(deep));
}

TEST_F(TUnixServerSocketTest, ReleasesTheLockWhenItsConstructionFails) {
  std::ofstream(path()) << "in the way";
  constructionError();
  std::filesystem::remove(path());
  EXPECT_NO_THROW(TUnixServerSocket(9020));
}

TEST_F(TUnixServerSocketTest, RemovesItsSocketAtTheEndSoThatTheNextServerStarts) {
  {
    TUnixServerSocket server(9020);
    server.close();
    EXPECT_FALSE(server.isOpen());
    EXPECT_FALSE(std::filesystem::exists(path()));
    TUnixServerSocket next(9020);
    server.close();
    expectServes(next);
  }
  EXPECT_FALSE(std::filesystem::exists(path()));
}

TEST_F(TUnixServerSocketTest, LeavesASocketThatTookItsPlace) {
  TUnixServerSocket server(9020);
  std::filesystem::remove(path());
  const FileDescriptor usurper = plainListener(path(), 1);
  server.close();
  EXPECT_TRUE(std::filesystem::is_socket(path()));
}

TEST_F(TUnixServerSocketTest, OpensEveryDescriptorCloseOnExec) {
  const std::vector<int> before = openDescriptors();
  TUnixServerSocket server(9020);
  TUnixSocket client("localhost", 9020);
  client.open();
  const std::shared_ptr<TTransport> connection = server.accept();
  int ours = 0;
  for (const int descriptor : openDescriptors()) {
    if (std::find(before.begin(), before.end(), descriptor) == before.end()) {
      ++ours;
      EXPECT_NE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0) << descriptor;
    }
  }
  EXPECT_EQ(ours, 5);  // lock, listener, interrupt, accepted, client
}

TEST_F(TUnixServerSocketTest, AcceptsBlockingConnectionsOnANonBlockingListener) {
  TUnixServerSocket server(9020);
  TUnixSocket client("localhost", 9020);
  client.open();
  const std::shared_ptr<TTransport> connection = server.accept();
  const int accepted = dynamic_cast<TSocket&>(*connection).getSocketFD();
  EXPECT_EQ(fcntl(accepted, F_GETFL) & O_NONBLOCK, 0);
  EXPECT_NE(fcntl(server.getSocketFD(), F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(TUnixServerSocketTest, EndsAWaitingAcceptWhenInterrupted) {
  TUnixServerSocket server(9020);
  auto waiting = std::async(std::launch::async, [&] { return errorType([&] { server.accept(); }); });
  server.interrupt();
  EXPECT_EQ(waiting.get(), TTransportException::INTERRUPTED);
}

TEST_F(TUnixServerSocketTest, EndsEveryLaterAcceptOnceInterrupted) {
  TUnixServerSocket server(9020);
  TUnixSocket client("localhost", 9020);
  client.open();
  server.interrupt();
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(errorType([&server] { server.accept(); }), TTransportException::INTERRUPTED);
  }
}

TEST_F(TUnixServerSocketTest, EndsItsConnectionsWhenTheirServerStops) {
  TUnixServerSocket server(9020);
  TUnixSocket client("localhost", 9020);
  client.setRecvTimeout(10'000);
  client.open();
  const std::shared_ptr<TTransport> connection = server.accept();
  dynamic_cast<TSocket&>(*connection).setRecvTimeout(10'000);
  auto reading = std::async(std::launch::async, [&connection] {
    std::uint8_t byte = 0;
    return connection->read(&byte, 1);
  });
  server.interruptChildren();
  EXPECT_EQ(reading.get(), 0U);
  std::uint8_t byte = 0;
  EXPECT_EQ(client.read(&byte, 1), 0U);
}

TEST_F(TUnixServerSocketTest, EndsConnectionsThatItAcceptsAfterItsServerStopped) {
  TUnixServerSocket server(9020);
  TUnixSocket client("localhost", 9020);
  client.setRecvTimeout(10'000);
  client.open();
  server.interruptChildren();
  const std::shared_ptr<TTransport> connection = server.accept();
  std::uint8_t byte = 0;
  EXPECT_EQ(client.read(&byte, 1), 0U);
}

TEST_F(TUnixServerSocketTest, LeavesAReusedDescriptorOfAnEndedConnectionAlone) {
  TUnixServerSocket server(9020);
  TUnixSocket client("localhost", 9020);
  client.open();
  const std::shared_ptr<TTransport> ended = server.accept();
  const int descriptor = dynamic_cast<TSocket&>(*ended).getSocketFD();
  ended->close();
  int pair[2] = {-1, -1};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
  const FileDescriptor first(pair[0]);
  const FileDescriptor second(pair[1]);
  ASSERT_EQ(first.get(), descriptor);
  server.interruptChildren();
  EXPECT_EQ(write(second.get(), "x", 1), 1);
}

TEST_F(TUnixServerSocketTest, AcceptsNothingAfterItsEnd) {
  TUnixServerSocket server(9020);
  server.close();
  server.interrupt();
  EXPECT_EQ(errorType([&server] { server.accept(); }), TTransportException::NOT_OPEN);
}

std::atomic<int> shortageReports{0};

/// A server with a thread that accepts one connection. Its reports of a shortage are counted.
class Shortage : public TUnixServerSocketTest {
 protected:
  void SetUp() override {
    shortageReports = 0;
    ravel::rpc::thriftOutput().setOutputFunction([](const char* message) {
      const char* const report = "9020.sock: cannot accept connections, retrying: ";
      shortageReports += std::strstr(message, report) != nullptr ? 1 : 0;
    });
    server_.emplace(9020);
    expectServes(*server_);
    client_.emplace("localhost", 9020);
    client_->open();
  }
  void TearDown() override {
    server_.reset();
    ravel::rpc::thriftOutput().setOutputFunction(TOutput::errorTimeWrapper);
  }

  /// Calls `during` while accept finds no free descriptor. The thread starts earlier, because the sanitizers
  /// need descriptors too.
  void acceptWithoutDescriptors(const std::function<void()>& during) {
    accepted_.reset();
    failure_ = nullptr;
    std::atomic<bool> go{false};
    std::thread thread([this, &go] {
      while (!go) {
        std::this_thread::yield();
      }
      try {
        accepted_ = server_->accept();
      } catch (...) {
        failure_ = std::current_exception();
      }
    });
    const int reports = shortageReports;
    {
      // None beyond those that are open.
      const FileDescriptor lowestFree(open("/dev/null", O_RDONLY | O_CLOEXEC));
      const DescriptorLimit shortage(static_cast<rlim_t>(lowestFree.get()));
      go = true;
      EXPECT_TRUE(transport_test::eventually([reports] { return shortageReports > reports; }));
      during();
    }
    thread.join();
  }

  std::optional<TUnixServerSocket> server_;
  std::optional<TUnixSocket> client_;
  std::shared_ptr<TTransport> accepted_;
  std::exception_ptr failure_;
};

TEST_F(Shortage, OfDescriptorsIsSurvivedAndReportedOnceEachTime) {
  for (int episode = 1; episode <= 2; ++episode) {
    // Long enough for several attempts; only the first may be reported.
    acceptWithoutDescriptors([] { std::this_thread::sleep_for(std::chrono::milliseconds(250)); });
    ASSERT_NE(accepted_, nullptr);
    EXPECT_TRUE(accepted_->isOpen());
    EXPECT_EQ(shortageReports, episode);
    client_->close();
    client_->open();
  }
}

TEST_F(Shortage, OfDescriptorsCanBeInterrupted) {
  acceptWithoutDescriptors([this] { server_->interrupt(); });
  ASSERT_NE(failure_, nullptr);
  EXPECT_EQ(errorType([this] { std::rethrow_exception(failure_); }), TTransportException::INTERRUPTED);
}

}  // namespace
}  // namespace ravel::rpc
