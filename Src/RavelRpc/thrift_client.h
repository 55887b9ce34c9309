#ifndef RAVELRPC_THRIFT_CLIENT_H
#define RAVELRPC_THRIFT_CLIENT_H

#include <thrift/TApplicationException.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>

#include "LimitedBinaryProtocol.h"
#include "LimitedBufferedTransport.h"

namespace ravel::rpc {

/// The client of a service, shared by all threads of the process.
///
/// `Client` is the service's generated class, `Port` the number of its socket and `Socket` the class that
/// connects to it, made from "localhost" and the number. Binary protocol over buffered connections (see
/// LimitedBinaryProtocol.h and LimitedBufferedTransport.h).
///
/// A connection carries one call at a time. A call takes the idle connection or makes one of its own, so a
/// call never waits for another's reply: not a second thread's, and not one that is made from inside another
/// call, while that one waits for its reply. One idle connection at most is kept, so as not to hold the
/// service's workers; further ones are closed after their call.
///
/// A connection is kept only after exactly one reply: one with more bytes, there or in the buffer, is closed.
/// One that was kept is looked at before the next call: when the service has closed it, or has sent something
/// that nobody asked for, it is closed and a new one made.
///
/// Threads: call() may be called from any thread, also from inside a call. No lock is held while connecting
/// or calling.
template <class Client, int Port, class Socket>
class thrift_client {
 public:
  /// Makes no connection yet. `timeout` is for connecting and reading together: both end that long after the
  /// call's beginning, however the service spreads its reply. Sending has as long again, where it ever waits.
  explicit thrift_client(std::chrono::milliseconds timeout = std::chrono::seconds(10)) : timeout_(timeout) {}

  thrift_client(const thrift_client&) = delete;
  thrift_client& operator=(const thrift_client&) = delete;

  /// Runs `operation`, which is given a Client& for one call and must not keep it, on a connection.
  ///
  /// Throws what the connecting and the operation throw. After a TApplicationException, by which the service
  /// answered, the connection is kept; after anything else it is closed, and the next call connects anew.
  /// Nothing is tried again, since the service may have begun to act on the call.
  template <class Call>
  void call(Call&& operation) {
    std::unique_ptr<Connection> connection = takeIdle();
    if (!connection || connection->hasInput()) {
      connection = makeConnection();
    }
    connection->socket->setDeadline(std::chrono::steady_clock::now() + timeout_);
    try {
      if (!connection->transport->isOpen()) {
        connection->transport->open();
      }
      std::forward<Call>(operation)(connection->client);
    } catch (const apache::thrift::TApplicationException&) {
      giveBack(std::move(connection));
      throw;
    }
    // Any other exception closes the connection on its way out. It drops the socket rather than close the
    // transport, which would first flush what is left of the failed call.
    giveBack(std::move(connection));
  }

 private:
  struct Connection {
    explicit Connection(std::shared_ptr<Socket> connecting)
        : socket(std::move(connecting)),
          transport(std::make_shared<LimitedBufferedTransport>(socket, bufferSize, bufferSize)),
          client(std::make_shared<LimitedBinaryProtocol>(transport)) {}

    /// Between two calls there is nothing to read but the end of the connection and what nobody asked for.
    bool hasInput() const { return transport->hasBufferedInput() || socket->hasInput(); }

    const std::shared_ptr<Socket> socket;
    const std::shared_ptr<LimitedBufferedTransport> transport;
    Client client;
  };

  static constexpr std::uint32_t bufferSize = 512;

  /// Null when there is none.
  std::unique_ptr<Connection> takeIdle() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return std::move(idle_);
  }

  std::unique_ptr<Connection> makeConnection() const {
    const auto socket = std::make_shared<Socket>("localhost", Port);
    const int milliseconds = static_cast<int>(timeout_.count());
    socket->setConnTimeout(milliseconds);
    socket->setRecvTimeout(milliseconds);
    socket->setSendTimeout(milliseconds);
    return std::make_unique<Connection>(socket);
  }

  void giveBack(std::unique_ptr<Connection> connection) {
    if (connection->hasInput()) {
      return;
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!idle_) {
      idle_ = std::move(connection);
    }
  }

  const std::chrono::milliseconds timeout_;
  std::mutex mutex_;
  std::unique_ptr<Connection> idle_;
};

}  // namespace ravel::rpc

#endif  // RAVELRPC_THRIFT_CLIENT_H
