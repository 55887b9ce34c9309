#include <sys/resource.h>
#include <thrift/TApplicationException.h>
#include <thrift/concurrency/Exception.h>
#include <thrift/protocol/TBinaryProtocol.h>

#include <algorithm>
#include <atomic>
#include <boost/make_shared.hpp>
#include <boost/weak_ptr.hpp>
#include <future>
#include <optional>
#include <stdexcept>
#include <utility>

#include "Connection.h"
#include "DeathTestStyle.h"
#include "IdleCrowd.h"
#include "TUnixSocket.h"
#include "TransportTestSupport.h"
#include "thrift_server.h"

using apache::thrift::TApplicationException;
using apache::thrift::concurrency::SystemResourceException;
using apache::thrift::protocol::T_CALL;
using apache::thrift::protocol::T_EXCEPTION;
using apache::thrift::protocol::T_I64;
using apache::thrift::protocol::T_LIST;
using apache::thrift::protocol::T_MAP;
using apache::thrift::protocol::T_SET;
using apache::thrift::protocol::T_STRING;
using apache::thrift::protocol::T_STRUCT;
using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::protocol::TMessageType;
using apache::thrift::protocol::TType;
using apache::thrift::transport::TBufferedTransport;
using apache::thrift::transport::TTransportException;

namespace ravel::rpc {
namespace {

using transport_test::eventually;
using transport_test::UsbHandler;
using transport_test::UsbServer;

class ThriftServer : public transport_test::SocketDirectoryTest {
 protected:
  using Client = testsupport::Connection<usb_rpc_gen_Client>;

  /// Sends what was written. True if the server then closes the connection without a reply.
  static bool isClosed(Client& client) {
    // Ends only the test of a server that waits for more.
    client.socket().setRecvTimeout(60000);
    client.protocol().getTransport()->flush();
    std::uint8_t byte = 0;
    return client.socket().read(&byte, 1) == 0;
  }

  const boost::shared_ptr<UsbHandler> handler_ = boost::make_shared<UsbHandler>();
};

TEST_F(ThriftServer, ServesOnceStarted) {
  UsbServer server(handler_);
  server.start();
  server.start();
  Client client;
  EXPECT_TRUE(client->OpenDevice(1));
}

TEST_F(ThriftServer, LetsClientsWaitForItsStart) {
  UsbServer server(handler_);
  Client client;
  client->send_OpenDevice(1);
  server.start();
  EXPECT_TRUE(client->recv_OpenDevice());
}

TEST_F(ThriftServer, FailsInTheConstructorWhenTheSocketIsTaken) {
  const TUnixServerSocket taken(9020);
  EXPECT_THROW(UsbServer server(handler_), TTransportException);
}

TEST_F(ThriftServer, SaysThatItHasNoThreadToStart) {
  UsbServer server(handler_);
  server.loseThread();
  try {
    server.start();
    FAIL() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "Thrift thread could not start");
  }
}

TEST_F(ThriftServer, FreesTheSocketWhenItWasNeverStarted) {
  { UsbServer server(handler_); }
  EXPECT_NO_THROW(TUnixServerSocket(9020));
}

TEST_F(ThriftServer, KeepsServingWhenItsObjectIsGone) {
  struct Server : thrift_server<usb_rpc_gen_If, usb_rpc_gen_Processor, 9020, 10, TUnixServerSocket> {
    using thrift_server::thrift_server;
    std::shared_ptr<apache::thrift::concurrency::Thread> running() const { return thread; }
  };
  std::shared_ptr<apache::thrift::concurrency::Thread> thread;
  boost::weak_ptr<UsbHandler> handler;
  {
    const auto strong = boost::make_shared<UsbHandler>();
    handler = strong;
    Server server(strong);
    server.start();
    thread = server.running();
  }
  ASSERT_FALSE(handler.expired());
  {
    Client client;
    EXPECT_TRUE(client->OpenDevice(1));
  }
  dynamic_cast<apache::thrift::server::TServer&>(*thread->runnable()).stop();
  EXPECT_TRUE(eventually([&] { return thread->getState() == apache::thrift::concurrency::Thread::stopped; }));
}

TEST_F(ThriftServer, ServesTenConnectionsAtOnceAndTheEleventhWhenOneLeaves) {
  std::atomic<int> entered{0};
  std::promise<void> gate;
  const std::shared_future<void> open = gate.get_future().share();
  handler_->open = [&entered, open](std::int16_t) {
    ++entered;
    open.wait();
    return true;
  };
  UsbServer server(handler_);
  server.start();

  std::vector<std::unique_ptr<Client>> clients;
  for (int number = 1; number <= 10; ++number) {
    clients.push_back(std::make_unique<Client>());
    (*clients.back())->send_OpenDevice(1);
  }
  ASSERT_TRUE(eventually([&entered] { return entered == 10; }));

  Client eleventh;
  eleventh->send_OpenDevice(1);
  ASSERT_TRUE(eventually([&server] { return server.server().getThreadManager()->pendingTaskCount() == 1; }));
  EXPECT_EQ(entered, 10);

  gate.set_value();
  for (const auto& client : clients) {
    EXPECT_TRUE((*client)->recv_OpenDevice());
  }
  // All ten have their reply, but still hold the workers.
  EXPECT_EQ(server.server().getThreadManager()->pendingTaskCount(), 1U);
  EXPECT_EQ(entered, 10);
  clients.pop_back();
  EXPECT_TRUE(eleventh->recv_OpenDevice());
  EXPECT_EQ(entered, 11);
}

TEST_F(ThriftServer, ServesAConnectionToItsEndByOneWorker) {
  pid_t worker = 0;
  handler_->open = [&worker](std::int16_t) {
    worker = gettid();
    return true;
  };
  UsbServer server(handler_);
  server.start();
  std::vector<std::unique_ptr<Client>> clients;
  std::vector<pid_t> workers;
  for (int round = 0; round < 5; ++round) {
    for (std::size_t number = 0; number < 10; ++number) {
      if (round == 0) {
        clients.push_back(std::make_unique<Client>());
      }
      EXPECT_TRUE((*clients[number])->OpenDevice(1));
      if (round == 0) {
        EXPECT_EQ(std::count(workers.begin(), workers.end(), worker), 0) << "another one has this worker";
        workers.push_back(worker);
      }
      EXPECT_EQ(worker, workers[number]) << round;
    }
  }
}

TEST_F(ThriftServer, KeepsAReserveOfDescriptorsFreeOfConnections) {
  for (const auto& [descriptors, connections] :
       {std::pair{32, 10}, {64, 10}, {74, 10}, {75, 11}, {256, 192}, {320, 256}, {1024, 256}}) {
    const DescriptorLimit limit(static_cast<rlim_t>(descriptors));
    EXPECT_EQ(maxConnectionCount(10), connections) << descriptors;
  }
  const DescriptorLimit limit(100);
  UsbServer server(handler_);
  EXPECT_EQ(server.server().getConcurrentClientLimit(), 36);
}

TEST_F(ThriftServer, ServesWaitingConnectionsOnceOthersLeave) {
  std::optional<UsbServer> server;
  {
    const DescriptorLimit limit(75);
    server.emplace(handler_);
  }
  handler_->open = [](std::int16_t device) -> bool {
    if (device == 13) {
      throw device;
    }
    return true;
  };
  server->start();
  // Each ends its connection's task with an exception; the connection must still be counted down.
  for (int connection = 0; connection < 12; ++connection) {
    Client unlucky;
    EXPECT_THROW(unlucky->OpenDevice(13), TTransportException);
  }

  std::vector<std::unique_ptr<Client>> idle;
  for (int number = 0; number < 20; ++number) {
    idle.push_back(std::make_unique<Client>());
  }
  Client last;
  last->send_OpenDevice(1);
  ASSERT_TRUE(eventually([&server] { return server->server().getConcurrentClientCount() == 11; }));
  idle.clear();
  EXPECT_TRUE(last->recv_OpenDevice());
  EXPECT_EQ(server->server().getConcurrentClientCountHWM(), 11);
}

TEST_F(ThriftServer, StopsWhileItHoldsItsMaximumOfConnections) {
  std::optional<UsbServer> server;
  {
    const DescriptorLimit limit(64);
    server.emplace(handler_);
  }
  server->start();
  std::vector<std::unique_ptr<Client>> idle;
  for (int number = 0; number < 12; ++number) {
    idle.push_back(std::make_unique<Client>());
  }
  ASSERT_TRUE(eventually([&server] { return server->server().getConcurrentClientCount() == 10; }));
  server->stop();
}

TEST_F(ThriftServer, RepliesToAnExceptionOfTheHandlerAndKeepsServing) {
  handler_->open = [](std::int16_t device) -> bool {
    if (device == 13) {
      throw std::runtime_error("thirteen");
    }
    return true;
  };
  UsbServer server(handler_);
  server.start();
  Client client;
  try {
    client->OpenDevice(13);
    FAIL() << "no exception";
  } catch (const TApplicationException& error) {
    EXPECT_STREQ(error.what(), "thirteen");
  }
  EXPECT_TRUE(client->OpenDevice(1));
}

TEST_F(ThriftServer, SurvivesAnExceptionOfNoStandardType) {
  handler_->open = [](std::int16_t device) -> bool {
    if (device == 13) {
      throw device;
    }
    return true;
  };
  UsbServer server(handler_);
  server.start();
  for (int connection = 0; connection < 11; ++connection) {
    Client unlucky;
    EXPECT_THROW(unlucky->OpenDevice(13), TTransportException);
  }
  Client client;
  EXPECT_TRUE(client->OpenDevice(1));
}

TEST_F(ThriftServer, RepliesToAnUnknownOperationAndKeepsServing) {
  UsbServer server(handler_);
  server.start();
  Client client;
  client.protocol().writeMessageBegin("FormatEverything", T_CALL, 7);
  client.protocol().writeFieldBegin("", T_STRING, 1);
  client.protocol().writeString(std::string("sdb1"));
  client.protocol().writeFieldStop();
  client.protocol().getTransport()->flush();

  std::string name;
  TMessageType type{};
  std::int32_t sequence = 0;
  client.protocol().readMessageBegin(name, type, sequence);
  TApplicationException answer;
  answer.read(&client.protocol());
  EXPECT_EQ(name, "FormatEverything");
  EXPECT_EQ(type, T_EXCEPTION);
  EXPECT_EQ(sequence, 7);
  EXPECT_EQ(answer.getType(), TApplicationException::UNKNOWN_METHOD);
  EXPECT_TRUE(client->OpenDevice(1));
}

TEST_F(ThriftServer, ClosesAConnectionThatAnnouncesATooLongTextAndKeepsServing) {
  UsbServer server(handler_);
  server.start();
  Client greedy;
  EXPECT_THROW(greedy->OpenDeviceAt(1, std::string(LimitedBufferedTransport::maxFieldSize + 1, 'm'), false),
               TTransportException);
  Client client;
  EXPECT_TRUE(client->OpenDeviceAt(1, std::string(LimitedBufferedTransport::maxFieldSize, 'm'), false));
}

TEST_F(ThriftServer, ClosesAConnectionThatSendsGarbageAndKeepsServing) {
  constexpr std::uint32_t twoBillion = 2000000000;
  using Protocol = TBinaryProtocol;
  const auto field = [](TType type, const std::function<void(Protocol&)>& write) {
    return [=](Protocol& protocol) {
      protocol.writeMessageBegin("OpenDevice", T_CALL, 0);
      protocol.writeFieldBegin("", type, 99);
      write(protocol);
    };
  };
  const std::pair<const char*, std::function<void(Protocol&)>> rows[] = {
      {"huge list", field(T_LIST, [](Protocol& protocol) { protocol.writeListBegin(T_I64, twoBillion); })},
      {"huge set", field(T_SET, [](Protocol& protocol) { protocol.writeSetBegin(T_I64, twoBillion); })},
      {"huge map",
       field(T_MAP, [](Protocol& protocol) { protocol.writeMapBegin(T_I64, T_I64, twoBillion); })},
      {"structures nested too deep", field(T_STRUCT,
                                           [](Protocol& protocol) {
                                             // Few enough bytes to fit into the socket's buffer unread.
                                             for (int depth = 1; depth < 100; ++depth) {
                                               protocol.writeFieldBegin("", T_STRUCT, 99);
                                             }
                                           })},
      {"unknown type",
       [](Protocol& protocol) {
         protocol.writeMessageBegin("OpenDevice", T_CALL, 0);
         protocol.writeByte(-2);
       }},
      {"another protocol",
       [](Protocol& protocol) {
         const std::string request = "GET / HTTP/1.0\r\n\r\n";
         protocol.getTransport()->write(reinterpret_cast<const std::uint8_t*>(request.data()),
                                        static_cast<std::uint32_t>(request.size()));
       }},
  };
  UsbServer server(handler_);
  server.start();
  for (const auto& [description, write] : rows) {
    Client rude;
    write(rude.protocol());
    EXPECT_TRUE(isClosed(rude)) << description;
    Client client;
    EXPECT_TRUE(client->OpenDevice(1)) << description;
  }
}

TEST_F(ThriftServer, ServesMoreThanAHundredMegabytesOnOneConnection) {
  std::size_t bytes = 0;
  handler_->openAt = [&bytes](const std::string& text) {
    bytes += text.size();
    return true;
  };
  UsbServer server(handler_);
  server.start();
  Client client;
  const std::string text(900UL * 1024, 'm');
  for (int calls = 0; calls < 130; ++calls) {
    ASSERT_TRUE(client->OpenDeviceAt(1, text, false)) << calls;
  }
  EXPECT_GT(bytes, 110UL * 1024 * 1024);
}

/// Ends with 0 if the server's constructor reports that a worker could not be made.
[[noreturn]] void makeServerWithoutThreads() {
  // Root is exempt from the limit.
  if (geteuid() == 0 && setuid(65534) != 0) {
    _exit(2);
  }
  std::array<char, 32> directory{"/tmp/transport-test-XXXXXX"};
  if (mkdtemp(directory.data()) == nullptr) {
    _exit(3);
  }
  setenv("RAVEL_SOCKET_DIR", directory.data(), 1);
  const rlimit limit{4, 4};
  setrlimit(RLIMIT_NPROC, &limit);
  int result = 4;
  try {
    const UsbServer server(boost::make_shared<UsbHandler>());
  } catch (const SystemResourceException& error) {
    result = std::string(error.what()).rfind("pthread_create: ", 0) == 0 ? 0 : 5;
  }
  std::filesystem::remove_all(directory.data());
  _exit(result);
}

TEST(ThriftServerDeathTest, FailsRatherThanHangsWhenAWorkerCannotBeMade) {
  useStyleForThreads();
  EXPECT_EXIT(makeServerWithoutThreads(), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace ravel::rpc
