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
#include "ThriftOutput.h"
#include "TransportTestSupport.h"

using apache::thrift::TOutput;
using apache::thrift::transport::TTransport;
using apache::thrift::transport::TTransportException;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using transport_test::errorText;
using transport_test::errorType;
using transport_test::FailingCall;
using transport_test::openDescriptors;
using transport_test::plainListener;
using transport_test::TransportError;
using transport_test::transportError;

namespace ravel::rpc {
namespace {

std::vector<std::string> reports;

class FailingCalls : public transport_test::SocketDirectoryTest {
 protected:
  FailingCalls() {
    reports.clear();
    ravel::rpc::thriftOutput().setOutputFunction([](const char* message) { reports.emplace_back(message); });
  }
  ~FailingCalls() override { ravel::rpc::thriftOutput().setOutputFunction(TOutput::errorTimeWrapper); }

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
    EXPECT_EQ(transportError([] { TUnixServerSocket server(9020); }),
              TransportError(TTransportException::NOT_OPEN,
                             path() + ": " + step + ": " + TOutput::strerror_s(EIO)));
    EXPECT_TRUE(failing.happened()) << step;
    EXPECT_EQ(std::filesystem::exists(path()), socketWasThere) << step;
    EXPECT_EQ(openDescriptors(), descriptors) << step;
    EXPECT_NO_THROW(TUnixServerSocket(9020)) << step;
  }
};

TEST_F(FailingCalls, AreNamedWhenAServerCannotBeMade) {
  expectNoServer("eventfd", "eventfd");
  expectNoServer("flock", "flock of \"" + (directory_ / "9020.lock").string() + '"');
  expectNoServer("lstat64", "lstat of \"" + directory_.string() + '"');
  expectNoServer(FailingCall("lstat64", EIO).after(1), "lstat");
  expectNoServer("socket", "socket");
  expectNoServer("bind", "bind");
  expectNoServer("chmod", "chmod");
  expectNoServer(FailingCall("lstat64", EIO).after(2), "lstat");
  expectNoServer("listen", "listen");
}

TEST_F(FailingCalls, AreNamedWhenAServerCannotMakeItsDirectory) {
  std::filesystem::remove(directory_);
  expectNoServer("chmod", "chmod of \"" + directory_.string() + '"');
}

TEST_F(FailingCalls, AreNamedWhenAStaleSocketCannotBeReplaced) {
  leaveStaleSocket();
  expectNoServer("socket", "socket");
  leaveStaleSocket();
  expectNoServer("connect", "not replaced, since another process may serve it");
  leaveStaleSocket();
  expectNoServer("unlink", "unlink of the stale socket");
}

TEST_F(FailingCalls, AreIgnoredWhenSomebodyElseHasRemovedTheStaleSocket) {
  leaveStaleSocket();
  {
    const FailingCall failing("unlink", ENOENT);
    // The socket still exists, so the server cannot bind its own.
    EXPECT_EQ(errorText([] { TUnixServerSocket server(9020); }),
              path() + ": bind: " + TOutput::strerror_s(EADDRINUSE));
    EXPECT_TRUE(failing.happened());
  }
  const FailingCall failing("connect", ENOENT);
  EXPECT_EQ(errorText([] { TUnixServerSocket server(9020); }),
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
  ravel::rpc::thriftOutput().setOutputFunction([](const char*) { throw std::bad_alloc(); });
  const FailingCall failing("accept4", ENOMEM);
  EXPECT_NE(server.accept(), nullptr);
  EXPECT_TRUE(failing.happened());
}

TEST_F(FailingCalls, EndAcceptWhereTheyStay) {
  TUnixServerSocket server(9020);
  TUnixSocket client("localhost", 9020);
  client.open();
  for (const auto& [call, step] : {std::pair{"accept4", "accept"}, std::pair{"poll", "poll"}}) {
    const FailingCall failing(call, EINVAL);
    EXPECT_EQ(transportError([&server] { server.accept(); }),
              TransportError(TTransportException::UNKNOWN,
                             path() + ": " + step + ": " + TOutput::strerror_s(EINVAL)));
  }
}

TEST_F(FailingCalls, AreNamedWhenAClientCannotConnect) {
  const TUnixServerSocket server(9020);
  for (const std::string call : {"socket", "setsockopt", "connect"}) {
    const auto descriptors = openDescriptors();
    TUnixSocket client("localhost", 9020);
    client.setConnTimeout(60000);
    const FailingCall failing(call, ENOBUFS);
    EXPECT_EQ(transportError([&client] { client.open(); }),
              TransportError(TTransportException::NOT_OPEN,
                             path() + ": " + call + ": " + TOutput::strerror_s(ENOBUFS)));
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
  EXPECT_EQ(transportError([&client] { client.open(); }),
            TransportError(TTransportException::TIMED_OUT, path() + ": connect timed out"));
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
