#ifndef TESTS_SUPPORT_CONNECTION_H
#define TESTS_SUPPORT_CONNECTION_H

#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>

#include <memory>
#include <string>

#include "TUnixSocket.h"

namespace testsupport {

/// A client's connection to the daemon, as any program would make it. Waits at most 20 s for a reply.
template <typename Stub>
class Connection {
 public:
  /// Connects; throws if nobody accepts.
  Connection() {
    socket_->setRecvTimeout(20000);
    socket_->open();
  }

  Stub* operator->() { return &stub_; }
  ravel::rpc::TUnixSocket& socket() { return *socket_; }
  apache::thrift::protocol::TBinaryProtocol& protocol() { return *protocol_; }
  /// Sends bytes that need not be a call.
  void send(const std::string& bytes) {
    socket_->write(reinterpret_cast<const std::uint8_t*>(bytes.data()),
                   static_cast<std::uint32_t>(bytes.size()));
  }

 private:
  const std::shared_ptr<ravel::rpc::TUnixSocket> socket_ =
      std::make_shared<ravel::rpc::TUnixSocket>("localhost", 9020);
  const std::shared_ptr<apache::thrift::protocol::TBinaryProtocol> protocol_ =
      std::make_shared<apache::thrift::protocol::TBinaryProtocol>(
          std::make_shared<apache::thrift::transport::TBufferedTransport>(socket_));
  Stub stub_{protocol_};
};

}  // namespace testsupport

#endif  // TESTS_SUPPORT_CONNECTION_H
