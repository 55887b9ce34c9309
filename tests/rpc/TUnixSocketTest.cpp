#include <pthread.h>
#include <sys/time.h>

#include <csignal>
#include <functional>
#include <future>
#include <utility>
#include <vector>

#include "TUnixSocket.h"
#include "TransportTestSupport.h"

using apache::thrift::TOutput;
using apache::thrift::transport::TTransport;
using apache::thrift::transport::TTransportException;

namespace ravel::rpc {
namespace {

using transport_test::errorText;
using transport_test::errorType;
using transport_test::fillBacklog;
using transport_test::plainListener;
using transport_test::TransportError;
using transport_test::transportError;

class TUnixSocketTest : public transport_test::SocketDirectoryTest {
 protected:
  std::string path() const { return (directory_ / "9014.sock").string(); }

  static std::chrono::microseconds timeoutOf(TUnixSocket& socket, int option) {
    timeval value{};
    socklen_t size = sizeof(value);
    EXPECT_EQ(getsockopt(socket.getSocketFD(), SOL_SOCKET, option, &value, &size), 0);
    return std::chrono::seconds(value.tv_sec) + std::chrono::microseconds(value.tv_usec);
  }
};

TEST_F(TUnixSocketTest, KnowsNoHostButLocalhost) {
  EXPECT_EQ(transportError([] { TUnixSocket("127.0.0.1", 9014); }),
            TransportError(TTransportException::BAD_ARGS,
                           "local sockets are on localhost only, not on \"127.0.0.1\""));
}

TEST_F(TUnixSocketTest, RefusesATooLongPath) {
  setenv("RAVEL_SOCKET_DIR", ("/tmp/" + std::string(100, 'd')).c_str(), 1);
  EXPECT_EQ(errorType([] { TUnixSocket("localhost", 9014); }), TTransportException::BAD_ARGS);
}

TEST_F(TUnixSocketTest, IsClosedAfterAFailureAndOpensLater) {
  TUnixSocket client("localhost", 9014);
  EXPECT_EQ(
      transportError([&client] { client.open(); }),
      TransportError(TTransportException::NOT_OPEN, path() + ": connect: " + TOutput::strerror_s(ENOENT)));
  EXPECT_FALSE(client.isOpen());

  TUnixServerSocket server(9014);
  client.open();
  EXPECT_TRUE(client.isOpen());
}

TEST_F(TUnixSocketTest, SaysThatNobodyServesAStaleSocket) {
  plainListener(path(), 1).reset();
  TUnixSocket client("localhost", 9014);
  EXPECT_EQ(errorText([&client] { client.open(); }),
            path() + ": connect: " + TOutput::strerror_s(ECONNREFUSED));
}

TEST_F(TUnixSocketTest, LeavesAnOpenConnectionAsItIs) {
  TUnixServerSocket server(9014);
  TUnixSocket client("localhost", 9014);
  client.open();
  const int descriptor = client.getSocketFD();
  client.open();
  EXPECT_EQ(client.getSocketFD(), descriptor);
}

TEST_F(TUnixSocketTest, OpensAgainAfterItWasClosed) {
  TUnixServerSocket server(9014);
  TUnixSocket client("localhost", 9014);
  client.open();
  client.close();
  client.open();
  EXPECT_TRUE(client.isOpen());
}

TEST_F(TUnixSocketTest, AppliesEachTimeoutWhereItBelongs) {
  using std::chrono::milliseconds;
  TUnixServerSocket server(9014);
  TUnixSocket client("localhost", 9014);
  client.setConnTimeout(30000);
  client.setRecvTimeout(20000);
  client.setSendTimeout(10000);
  client.open();
  EXPECT_EQ(timeoutOf(client, SO_RCVTIMEO), milliseconds(20000));
  EXPECT_EQ(timeoutOf(client, SO_SNDTIMEO), milliseconds(10000));

  TUnixSocket patient("localhost", 9014);
  patient.setConnTimeout(30000);
  patient.open();
  EXPECT_EQ(timeoutOf(patient, SO_RCVTIMEO), milliseconds(0));
  EXPECT_EQ(timeoutOf(patient, SO_SNDTIMEO), milliseconds(0));
}

TEST_F(TUnixSocketTest, StopsWaitingForASilentService) {
  TUnixServerSocket server(9014);
  TUnixSocket client("localhost", 9014);
  client.setRecvTimeout(50);
  client.open();
  const std::shared_ptr<TTransport> connection = server.accept();
  std::uint8_t byte = 0;
  EXPECT_EQ(errorType([&] { client.read(&byte, 1); }), TTransportException::TIMED_OUT);
}

TEST_F(TUnixSocketTest, ReadsUntilItsDeadlineAndNoLonger) {
  using std::chrono::milliseconds;
  using std::chrono::steady_clock;
  TUnixServerSocket server(9014);
  TUnixSocket client("localhost", 9014);
  client.open();
  const std::shared_ptr<TTransport> connection = server.accept();
  std::array<std::uint8_t, 1> byte{};

  client.setDeadline(steady_clock::now() + std::chrono::hours(1000000));
  connection->write(byte.data(), 1);
  EXPECT_EQ(client.read(byte.data(), 1), 1U);

  client.setDeadline(steady_clock::now() + milliseconds(50));
  EXPECT_EQ(transportError([&] { client.read(byte.data(), 1); }),
            TransportError(TTransportException::TIMED_OUT, path() + ": no complete reply in time"));

  // A service that sends without end: there is always something to read.
  connection->write(byte.data(), 1);
  EXPECT_EQ(errorType([&] { client.read(byte.data(), 1); }), TTransportException::TIMED_OUT);

  connection->close();
  client.setDeadline(steady_clock::now() + std::chrono::hours(1));
  EXPECT_EQ(client.read(byte.data(), 1), 1U);
  EXPECT_EQ(client.read(byte.data(), 1), 0U);
}

TEST_F(TUnixSocketTest, StopsWaitingForAServiceThatDoesNotRead) {
  TUnixServerSocket server(9014);
  TUnixSocket client("localhost", 9014);
  client.setSendTimeout(50);
  client.open();
  const std::shared_ptr<TTransport> connection = server.accept();
  const std::vector<std::uint8_t> much(64UL * 1024 * 1024);
  EXPECT_EQ(errorType([&] { client.write(much.data(), static_cast<std::uint32_t>(much.size())); }),
            TTransportException::TIMED_OUT);
}

TEST_F(TUnixSocketTest, StopsWaitingForRoomInTheBacklogAndOpensLater) {
  FileDescriptor listener = plainListener(path(), 0);
  auto waiting = fillBacklog(path());
  TUnixSocket client("localhost", 9014);
  client.setConnTimeout(50);
  EXPECT_EQ(transportError([&client] { client.open(); }),
            TransportError(TTransportException::TIMED_OUT, path() + ": connect timed out"));
  EXPECT_FALSE(client.isOpen());

  for (std::size_t accepted = 0; accepted < waiting.size(); ++accepted) {
    FileDescriptor(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC)).reset();
  }
  EXPECT_NO_THROW(client.open());
}

/// A client's call in its own thread, which gets signals that only interrupt.
class CallUnderSignals {
 public:
  explicit CallUnderSignals(std::function<void()> call)
      : result_(std::async(std::launch::async, [this, call = std::move(call)] {
          thread_.set_value(pthread_self());
          call();
        })) {
    struct sigaction interrupt {};
    interrupt.sa_handler = [](int) {};
    sigaction(SIGUSR1, &interrupt, &before_);
    const pthread_t thread = thread_.get_future().get();
    for (int signal = 0; signal < 50; ++signal) {
      if (result_.wait_for(std::chrono::milliseconds(1)) == std::future_status::ready) {
        return;
      }
      pthread_kill(thread, SIGUSR1);
    }
  }
  ~CallUnderSignals() { sigaction(SIGUSR1, &before_, nullptr); }
  CallUnderSignals(const CallUnderSignals&) = delete;
  CallUnderSignals& operator=(const CallUnderSignals&) = delete;

  /// Waits for the end of the call; rethrows its exception.
  void end() { result_.get(); }

 private:
  struct sigaction before_ {};
  std::promise<pthread_t> thread_;
  std::future<void> result_;
};

TEST_F(TUnixSocketTest, KeepsConnectingAfterASignal) {
  FileDescriptor listener = plainListener(path(), 0);
  auto waiting = fillBacklog(path());
  TUnixSocket client("localhost", 9014);
  client.setConnTimeout(60000);
  CallUnderSignals connecting([&client] { client.open(); });
  FileDescriptor(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC)).reset();
  EXPECT_NO_THROW(connecting.end());
}

TEST_F(TUnixSocketTest, KeepsReadingAfterManySignals) {
  TUnixServerSocket server(9014);
  TUnixSocket client("localhost", 9014);
  client.setRecvTimeout(60000);
  client.open();
  const std::shared_ptr<TTransport> connection = server.accept();
  std::uint8_t received = 0;
  CallUnderSignals reading([&client, &received] { client.read(&received, 1); });
  const std::uint8_t sent = 42;
  connection->write(&sent, 1);
  EXPECT_NO_THROW(reading.end());
  EXPECT_EQ(received, sent);
}

}  // namespace
}  // namespace ravel::rpc
