// Local sockets and threads when one of their system calls fails.

#include <gmock/gmock.h>
#include <thrift/concurrency/Exception.h>
#include <thrift/concurrency/FunctionRunner.h>

#include <cerrno>
#include <new>
#include <string>
#include <vector>

#include "FailingCall.h"
#include "PosixThreadFactory.h"
#include "TUnixServerSocket.h"
#include "TUnixSocket.h"
#include "TransportTestSupport.h"

using apache::thrift::GlobalOutput;
using apache::thrift::TOutput;
using apache::thrift::transport::TTransport;
using apache::thrift::transport::TTransportException;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using transport_test::FailingCall;
using transport_test::openDescriptors;
using transport_test::plainListener;
using transport_test::transportError;

namespace ravel::rpc {
namespace {

std::vector<std::string> reports;

class FailingCalls : public transport_test::SocketDirectoryTest {
 protected:
  void SetUp() override {
    SocketDirectoryTest::SetUp();
    reports.clear();
    GlobalOutput.setOutputFunction([](const char* message) { reports.emplace_back(message); });
  }
  void TearDown() override {
    GlobalOutput.setOutputFunction(TOutput::errorTimeWrapper);
    SocketDirectoryTest::TearDown();
  }

  std::string path() const { return (directory_ / "9020.sock").string(); }
  /// Leaves a socket without a server behind.
  void leaveStaleSocket() const { plainListener(path(), 1).reset(); }

  /// While the call behind `step` fails, no server can be made, the exception names the step, and nothing is
  /// left of the attempt.
  void expectNoServer(const std::string& call, const std::string& step) const {
    expectNoServer(FailingCall(call, EIO), step);
  }
  void expectNoServer(const FailingCall& failing, const std::string& step) const {
    const bool socketWasThere = std::filesystem::exists(path());
    const auto descriptors = openDescriptors();
    TTransportException::TTransportExceptionType type = TTransportException::UNKNOWN;
    EXPECT_EQ(transportError([] { TUnixServerSocket server(9020); }, &type),
              path() + ": " + step + ": " + TOutput::strerror_s(EIO));
    EXPECT_EQ(type, TTransportException::NOT_OPEN);
    EXPECT_TRUE(failing.happened()) << step;
    EXPECT_EQ(std::filesystem::exists(path()), socketWasThere) << step;
    EXPECT_EQ(openDescriptors(), descriptors) << step;
    EXPECT_NO_THROW(TUnixServerSocket(9020)) << step;
  }

  /// Returns the type of the exception that ends accept(), and its text in `text`.
  static TTransportException::TTransportExceptionType acceptError(TUnixServerSocket& server,
                                                                  std::string& text) {
    TTransportException::TTransportExceptionType type = TTransportException::NOT_OPEN;
    text = transportError([&server] { server.accept(); }, &type);
    return type;
  }
};

TEST_F(FailingCalls, AreNamedWhenAServerCannotBeMade) {
  expectNoServer("eventfd", "eventfd");
  expectNoServer("flock", "flock of " + (directory_ / "9020.lock").string());
  expectNoServer("lstat64", "lstat of the directory");
  expectNoServer(FailingCall("lstat64", EIO).after(1), "lstat");
  expectNoServer("socket", "socket");
  expectNoServer("bind", "bind");
  expectNoServer("chmod", "chmod");
  expectNoServer(FailingCall("lstat64", EIO).after(2), "lstat");
  expectNoServer("listen", "listen");
}

TEST_F(FailingCalls, AreNamedWhenAServerCannotMakeItsDirectory) {
  std::filesystem::remove(directory_);
  expectNoServer("chmod", "chmod of the directory");
}

TEST_F(FailingCalls, AreNamedWhenAStaleSocketCannotBeReplaced) {
  leaveStaleSocket();
  expectNoServer("socket", "socket");
  leaveStaleSocket();
  expectNoServer("connect", "cannot tell whether another process serves it, left alone");
  leaveStaleSocket();
  expectNoServer("unlink", "unlink of the stale socket");
}

TEST_F(FailingCalls, AreIgnoredWhenSomebodyElseHasRemovedTheStaleSocket) {
  leaveStaleSocket();
  {
    const FailingCall failing("unlink", ENOENT);
    // The socket still exists, so the server cannot bind its own.
    EXPECT_EQ(transportError([] { TUnixServerSocket server(9020); }),
              path() + ": bind: " + TOutput::strerror_s(EADDRINUSE));
    EXPECT_TRUE(failing.happened());
  }
  const FailingCall failing("connect", ENOENT);
  EXPECT_EQ(transportError([] { TUnixServerSocket server(9020); }),
            path() + ": bind: " + TOutput::strerror_s(EADDRINUSE));
  EXPECT_TRUE(failing.happened());
}

TEST_F(FailingCalls, AreReportedWhenAServerCannotRemoveItsSocket) {
  TUnixServerSocket server(9020);
  {
    const FailingCall failing("unlink", EROFS);
    server.close();
  }
  EXPECT_THAT(reports, ElementsAre(path() + ": cannot remove the socket: " + TOutput::strerror_s(EROFS)));
  EXPECT_FALSE(server.isOpen());
  EXPECT_NO_THROW(TUnixServerSocket(9020));
}

TEST_F(FailingCalls, LeaveASocketWhoseStatusIsUnknown) {
  TUnixServerSocket server(9020);
  {
    const FailingCall failing("lstat64", EIO);
    server.close();
    EXPECT_TRUE(failing.happened());
  }
  EXPECT_THAT(reports, IsEmpty());
  EXPECT_TRUE(std::filesystem::is_socket(path()));
}

TEST_F(FailingCalls, AreReportedWhenAServerCannotBeInterrupted) {
  TUnixServerSocket server(9020);
  {
    const FailingCall failing("write", EIO);
    server.interrupt();
  }
  EXPECT_THAT(reports, ElementsAre(path() + ": cannot interrupt accept: " + TOutput::strerror_s(EIO)));
  {
    // The eventfd is at its maximum, so the kernel counts no further interruption.
    const FailingCall failing("write", EAGAIN);
    server.interrupt();
    EXPECT_TRUE(failing.happened());
  }
  EXPECT_EQ(reports.size(), 1U);
}

TEST_F(FailingCalls, AreRetriedByAcceptWhereTheyPass) {
  TUnixServerSocket server(9020);
  TUnixSocket client("localhost", 9020);
  for (const int error : {EINTR, EAGAIN, ECONNABORTED, EMFILE, ENFILE, ENOBUFS, ENOMEM}) {
    client.open();
    const FailingCall failing("accept4", error);
    EXPECT_NE(server.accept(), nullptr) << error;
    EXPECT_TRUE(failing.happened()) << error;
    client.close();
  }
  client.open();
  const FailingCall failing("poll", EINTR);
  EXPECT_NE(server.accept(), nullptr);
  EXPECT_TRUE(failing.happened());
}

TEST_F(FailingCalls, AreRetriedByAcceptWithoutMemoryToReportThem) {
  TUnixServerSocket server(9020);
  TUnixSocket client("localhost", 9020);
  client.open();
  GlobalOutput.setOutputFunction([](const char*) { throw std::bad_alloc(); });
  const FailingCall failing("accept4", ENOMEM);
  EXPECT_NE(server.accept(), nullptr);
  EXPECT_TRUE(failing.happened());
}

TEST_F(FailingCalls, EndAcceptWhereTheyStay) {
  TUnixServerSocket server(9020);
  TUnixSocket client("localhost", 9020);
  client.open();
  std::string text;
  {
    const FailingCall failing("accept4", EINVAL);
    EXPECT_EQ(acceptError(server, text), TTransportException::UNKNOWN);
    EXPECT_EQ(text, path() + ": accept: " + TOutput::strerror_s(EINVAL));
  }
  const FailingCall failing("poll", EINVAL);
  EXPECT_EQ(acceptError(server, text), TTransportException::UNKNOWN);
  EXPECT_EQ(text, path() + ": poll: " + TOutput::strerror_s(EINVAL));
}

TEST_F(FailingCalls, AreNamedWhenAClientCannotConnect) {
  const TUnixServerSocket server(9020);
  for (const std::string call : {"socket", "setsockopt", "connect"}) {
    const auto descriptors = openDescriptors();
    TUnixSocket client("localhost", 9020);
    client.setConnTimeout(60000);
    const FailingCall failing(call, ENOBUFS);
    TTransportException::TTransportExceptionType type = TTransportException::UNKNOWN;
    EXPECT_EQ(transportError([&client] { client.open(); }, &type),
              path() + ": " + call + ": " + TOutput::strerror_s(ENOBUFS));
    EXPECT_EQ(type, TTransportException::NOT_OPEN);
    EXPECT_FALSE(client.isOpen());
    EXPECT_EQ(openDescriptors(), descriptors);
    client.open();
    EXPECT_TRUE(client.isOpen());
  }
}

TEST_F(FailingCalls, DoNotExtendAClientsTimeToConnect) {
  const TUnixServerSocket server(9020);
  TUnixSocket client("localhost", 9020);
  client.setConnTimeout(20);
  const FailingCall failing("connect", EINTR, FailingCall::always);
  TTransportException::TTransportExceptionType type = TTransportException::UNKNOWN;
  EXPECT_EQ(transportError([&client] { client.open(); }, &type), path() + ": connect timed out");
  EXPECT_EQ(type, TTransportException::TIMED_OUT);
}

TEST_F(FailingCalls, AreNamedWhenAThreadCannotBeMade) {
  using apache::thrift::concurrency::FunctionRunner;
  using apache::thrift::concurrency::SystemResourceException;
  using apache::thrift::concurrency::Thread;
  const auto thread = PosixThreadFactory().newThread(std::make_shared<FunctionRunner>([] {}));
  const FailingCall failing("pthread_attr_setstacksize", EINVAL);
  try {
    thread->start();
    FAIL() << "no exception";
  } catch (const SystemResourceException& error) {
    EXPECT_EQ(error.what(), "pthread_attr_setstacksize: " + TOutput::strerror_s(EINVAL));
  }
  EXPECT_EQ(thread->getState(), Thread::uninitialized);
}

}  // namespace
}  // namespace ravel::rpc
