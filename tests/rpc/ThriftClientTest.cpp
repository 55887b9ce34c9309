#include <atomic>
#include <boost/make_shared.hpp>
#include <future>
#include <optional>
#include <stdexcept>
#include <thread>

#include "TUnixSocket.h"
#include "TransportTestSupport.h"
#include "thrift_client.h"

using apache::thrift::TApplicationException;
using apache::thrift::TException;
using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::transport::TTransport;
using apache::thrift::transport::TTransportException;

namespace ravel::rpc {
namespace {

using transport_test::errorType;
using transport_test::eventually;
using transport_test::MediaHandler;
using transport_test::MediaServer;
using transport_test::RawService;

using Stub = corvane_rpc_gen_Client;

/// Counts the connections that the client makes.
class CountingSocket : public TUnixSocket {
 public:
  using TUnixSocket::TUnixSocket;
  void open() override {
    TUnixSocket::open();
    ++opened;
  }
  static inline std::atomic<int> opened{0};
};

using MediaClient = thrift_client<Stub, 9014, CountingSocket>;

void add(MediaClient& client, std::int16_t device = 1) {
  client.call([device](Stub& stub) { stub.SendUsbAddedCallback(device, 2, 3); });
}

class ThriftClient : public transport_test::SocketDirectoryTest {
 protected:
  ThriftClient() { CountingSocket::opened = 0; }

  const boost::shared_ptr<MediaHandler> handler_ = boost::make_shared<MediaHandler>();
};

TEST_F(ThriftClient, ConnectsAtItsFirstCallAndKeepsTheConnection) {
  std::vector<std::int16_t> devices;
  handler_->added = [&devices](std::int16_t device) { devices.push_back(device); };
  MediaServer server(handler_);
  server.start();
  MediaClient client;
  EXPECT_EQ(CountingSocket::opened, 0);
  add(client, 1);
  add(client, 2);
  EXPECT_EQ(CountingSocket::opened, 1);
  EXPECT_EQ(devices, (std::vector<std::int16_t>{1, 2}));
}

TEST_F(ThriftClient, FailsWithoutAServiceAndConnectsWhenThereIsOne) {
  // At its end the server waits for its clients, so destroy it after them.
  std::optional<MediaServer> server;
  MediaClient client;
  EXPECT_THROW(add(client), TTransportException);
  server.emplace(handler_);
  server->start();
  EXPECT_NO_THROW(add(client));
}

TEST_F(ThriftClient, BoundsConnectingReadingAndWriting) {
  MediaServer server(handler_);
  server.start();
  struct Probe : TUnixSocket {
    using TUnixSocket::TUnixSocket;
    void open() override {
      EXPECT_EQ(connTimeout_, 10000);
      EXPECT_EQ(recvTimeout_, 10000);
      EXPECT_EQ(sendTimeout_, 10000);
      TUnixSocket::open();
    }
  };
  thrift_client<Stub, 9014, Probe> client;
  client.call([](Stub& stub) { stub.SendUsbAddedCallback(1, 2, 3); });
}

TEST_F(ThriftClient, MakesCallsOfSeveralThreadsSideBySideAndKeepsOneConnection) {
  std::atomic<int> inside{0};
  std::promise<void> gate;
  const std::shared_future<void> open = gate.get_future().share();
  handler_->added = [&inside, open](std::int16_t) {
    ++inside;
    open.wait();
  };
  MediaServer server(handler_);
  server.start();
  MediaClient client;
  std::vector<std::future<void>> calls;
  calls.reserve(4);
  for (int thread = 0; thread < 4; ++thread) {
    calls.push_back(std::async(std::launch::async, [&client] { add(client); }));
  }
  // Each call must arrive while the others wait for their reply.
  EXPECT_TRUE(eventually([&inside] { return inside == 4; }));
  gate.set_value();
  for (auto& call : calls) {
    call.get();
  }
  EXPECT_EQ(CountingSocket::opened, 4);
  EXPECT_TRUE(eventually([&server] { return server.server().getConcurrentClientCount() == 1; }));
  add(client);
  EXPECT_EQ(CountingSocket::opened, 4);
}

TEST_F(ThriftClient, MakesACallWhileTheServiceRunsTheCallThatCausedIt) {
  MediaServer server(handler_);
  MediaClient client;
  std::vector<std::int16_t> removed;
  handler_->removed = [&removed](std::int16_t device) { removed.push_back(device); };
  handler_->added = [&client](std::int16_t device) {
    client.call([device](Stub& stub) { stub.SendUsbRemovedCallback(device, 2, 3); });
  };
  server.start();
  add(client, 5);
  add(client, 6);
  EXPECT_EQ(removed, (std::vector<std::int16_t>{5, 6}));
}

TEST_F(ThriftClient, MakesACallFromInsideACall) {
  MediaServer server(handler_);
  server.start();
  MediaClient client;
  client.call([&client](Stub& stub) {
    stub.send_SendUsbAddedCallback(1, 2, 3);
    client.call([](Stub& nested) { nested.SendUsbRemovedCallback(1, 2, 3); });
    stub.recv_SendUsbAddedCallback();
  });
  EXPECT_EQ(CountingSocket::opened, 2);
}

TEST_F(ThriftClient, KeepsTheConnectionWhenTheServiceAnswersWithAFailure) {
  handler_->added = [](std::int16_t device) {
    if (device == 13) {
      throw std::runtime_error("thirteen");
    }
  };
  MediaServer server(handler_);
  server.start();
  MediaClient client;
  for (int round = 0; round < 3; ++round) {
    try {
      add(client, 13);
      FAIL() << "no exception";
    } catch (const TApplicationException& error) {
      EXPECT_STREQ(error.what(), "thirteen");
    }
    EXPECT_NO_THROW(add(client, 1));
  }
  EXPECT_EQ(CountingSocket::opened, 1);
  EXPECT_EQ(server.server().getConcurrentClientCountHWM(), 1);
}

TEST_F(ThriftClient, DropsTheConnectionAfterAnyOtherException) {
  MediaServer server(handler_);
  server.start();
  MediaClient client;
  EXPECT_THROW(client.call([](Stub& stub) {
    stub.send_SendUsbAddedCallback(1, 2, 3);
    throw 13;
  }),
               int);
  add(client);
  EXPECT_EQ(CountingSocket::opened, 2);
}

/// The service's end of a connection. It can send more or less than a reply.
class Conversation {
 public:
  explicit Conversation(const std::shared_ptr<TTransport>& connection) : connection_(connection) {}

  /// Reads a call; returns its sequence number.
  std::int32_t readCall() {
    std::string name;
    apache::thrift::protocol::TMessageType type{};
    std::int32_t number = 0;
    reader_.readMessageBegin(name, type, number);
    reader_.skip(apache::thrift::protocol::T_STRUCT);
    return number;
  }
  /// Sends all of it at once.
  void send(const std::string& bytes) const {
    connection_->write(reinterpret_cast<const std::uint8_t*>(bytes.data()),
                       static_cast<std::uint32_t>(bytes.size()));
  }
  /// Waits for the client to end the connection.
  void waitForTheEnd() const {
    std::uint8_t byte = 0;
    while (connection_->read(&byte, 1) > 0) {
    }
  }
  void close() const { connection_->close(); }

 private:
  const std::shared_ptr<TTransport> connection_;
  TBinaryProtocol reader_{connection_};
};

std::string replyTo(std::int32_t call) {
  const auto wire = std::make_shared<apache::thrift::transport::TMemoryBuffer>();
  TBinaryProtocol writer(wire);
  writer.writeMessageBegin("SendUsbAddedCallback", apache::thrift::protocol::T_REPLY, call);
  writer.writeFieldStop();
  return wire->getBufferAsString();
}

TEST_F(ThriftClient, ConnectsAgainWhenTheServiceHasClosedTheKeptConnection) {
  std::atomic<int> closed{0};
  RawService service(9014, [&closed](const std::shared_ptr<TTransport>& connection) {
    Conversation conversation(connection);
    conversation.send(replyTo(conversation.readCall()));
    conversation.close();
    ++closed;
  });
  MediaClient client;
  for (int round = 1; round <= 3; ++round) {
    EXPECT_NO_THROW(add(client));
    ASSERT_TRUE(eventually([&] { return closed == round; }));
  }
  EXPECT_EQ(CountingSocket::opened, 3);
}

TEST_F(ThriftClient, DoesNotRepeatACallThatTheServiceHasReadAndNotAnswered) {
  std::atomic<int> calls{0};
  RawService service(9014, [&calls](const std::shared_ptr<TTransport>& connection) {
    Conversation conversation(connection);
    conversation.send(replyTo(conversation.readCall()));
    conversation.readCall();
    calls += 2;
    conversation.close();
  });
  MediaClient client;
  for (int round = 1; round <= 3; ++round) {
    EXPECT_NO_THROW(add(client));
    EXPECT_THROW(add(client), TTransportException);
    EXPECT_EQ(calls, 2 * round);
  }
  EXPECT_EQ(CountingSocket::opened, 3);
}

TEST_F(ThriftClient, DropsAConnectionThatCarriesMoreThanAReply) {
  for (const std::string& surplus : {std::string("x"), replyTo(1), replyTo(2), std::string(600, 'x')}) {
    for (const bool atOnce : {true, false}) {
      CountingSocket::opened = 0;
      std::promise<void> answered;
      std::promise<void> sent;
      std::atomic<int> connections{0};
      RawService service(9014, [&](const std::shared_ptr<TTransport>& connection) {
        Conversation conversation(connection);
        const std::string reply = replyTo(conversation.readCall());
        if (++connections > 1) {
          conversation.send(reply);
        } else if (atOnce) {
          conversation.send(reply + surplus);
          sent.set_value();
        } else {
          conversation.send(reply);
          answered.get_future().wait();
          conversation.send(surplus);
          sent.set_value();
        }
        conversation.waitForTheEnd();
      });
      MediaClient client;
      EXPECT_NO_THROW(add(client));
      answered.set_value();
      sent.get_future().wait();
      EXPECT_NO_THROW(add(client)) << surplus << atOnce;
      EXPECT_EQ(CountingSocket::opened, 2) << surplus << atOnce;
    }
  }
}

TEST_F(ThriftClient, TakesAReplyToAnotherCallForAFailureAndConnectsAgain) {
  RawService service(9014, [](const std::shared_ptr<TTransport>& connection) {
    Conversation conversation(connection);
    const std::int32_t first = conversation.readCall();
    conversation.send(replyTo(first));
    const std::int32_t second = conversation.readCall();
    EXPECT_NE(first, second);
    conversation.send(replyTo(first));
    conversation.waitForTheEnd();
  });
  MediaClient client;
  for (int round = 1; round <= 2; ++round) {
    EXPECT_NO_THROW(add(client));
    EXPECT_THROW(add(client), apache::thrift::protocol::TProtocolException);
    EXPECT_EQ(CountingSocket::opened, round);
  }
}

TEST_F(ThriftClient, TakesGarbageForAFailureAndConnectsAgain) {
  const std::string tooLong{"\x80\x01\x00\x02\x7f\xff\xff\xff", 8};
  const std::string hugeList =
      std::string{"\x80\x01\x00\x02\x00\x00\x00\x14SendUsbAddedCallback\x00\x00\x00\x01", 32} +
      std::string{"\x0f\x00\x07\x0a\x77\x35\x94\x00", 8};
  const std::vector<std::string> rubbish{"HTTP/1.0 400 Bad Request\r\n\r\n", std::string(600, '\xff'), "x",
                                         tooLong, hugeList};
  std::atomic<std::size_t> connections{0};
  RawService service(9014, [&](const std::shared_ptr<TTransport>& connection) {
    const std::string& answer = rubbish.at(connections++);
    connection->write(reinterpret_cast<const std::uint8_t*>(answer.data()),
                      static_cast<std::uint32_t>(answer.size()));
    // Read the request before closing, or the client cannot send it.
    std::array<std::uint8_t, 512> request{};
    connection->read(request.data(), static_cast<std::uint32_t>(request.size()));
    connection->close();
  });
  MediaClient client;
  for (std::size_t call = 0; call < rubbish.size(); ++call) {
    EXPECT_THROW(add(client), TException);
    EXPECT_EQ(CountingSocket::opened, static_cast<int>(call) + 1);
  }
}

TEST_F(ThriftClient, StopsWaitingForASilentService) {
  RawService service(9014, [](const std::shared_ptr<TTransport>& connection) {
    std::array<std::uint8_t, 512> request{};
    while (connection->read(request.data(), static_cast<std::uint32_t>(request.size())) > 0) {
    }
  });
  MediaClient client(std::chrono::milliseconds(50));
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(errorType([&client] { add(client); }), TTransportException::TIMED_OUT);
  }
  EXPECT_EQ(CountingSocket::opened, 2);
}

/// The beginning of a reply; its text of 1000000 bytes is missing.
const std::string beginOfALongAnswer{"\x80\x01\x00\x02\x00\x0f\x42\x40", 8};

TEST_F(ThriftClient, StopsReadingAReplyThatDrips) {
  // Each drop comes in time for one read. They end only in a test that has failed.
  RawService service(9014, [](const std::shared_ptr<TTransport>& connection) {
    std::string drop = beginOfALongAnswer;
    try {
      for (int drops = 0; drops < 1000; ++drops) {
        connection->write(reinterpret_cast<const std::uint8_t*>(drop.data()),
                          static_cast<std::uint32_t>(drop.size()));
        drop = "x";
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
    } catch (const TTransportException&) {
      // The client has left.
    }
    connection->close();
  });
  MediaClient client(std::chrono::milliseconds(500));
  EXPECT_EQ(errorType([&client] { add(client); }), TTransportException::TIMED_OUT);
}

TEST_F(ThriftClient, GivesEachCallOnAKeptConnectionItsOwnTime) {
  MediaServer server(handler_);
  server.start();
  const std::chrono::milliseconds timeout(1000);
  MediaClient client(timeout);
  add(client);
  std::this_thread::sleep_for(timeout + timeout / 10);
  EXPECT_NO_THROW(add(client));
  EXPECT_EQ(CountingSocket::opened, 1);
}

TEST_F(ThriftClient, StopsWaitingForAServiceThatDoesNotAccept) {
  const std::string path = localSocketPath(9014);
  const FileDescriptor listener = transport_test::plainListener(path, 0);
  const auto waiting = transport_test::fillBacklog(path);
  MediaClient client(std::chrono::milliseconds(50));
  EXPECT_EQ(errorType([&client] { add(client); }), TTransportException::TIMED_OUT);
}

}  // namespace
}  // namespace ravel::rpc
