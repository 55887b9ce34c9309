#ifndef DOCKHAND_BENCH_STUB_H
#define DOCKHAND_BENCH_STUB_H

#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>

#include <memory>

#include "TUnixSocket.h"
#include "usb_rpc_gen_.h"

namespace bench {

/// The generated client on its own connection, made as README tells callers.
class Stub {
 public:
  Stub()
      : socket_(std::make_shared<ravel::rpc::TUnixSocket>("localhost", 9020)),
        client_(std::make_shared<apache::thrift::protocol::TBinaryProtocol>(
            std::make_shared<apache::thrift::transport::TBufferedTransport>(socket_))) {
    socket_->open();
  }

  ravel::rpc::usb_rpc_gen_Client* operator->() { return &client_; }

 private:
  std::shared_ptr<ravel::rpc::TUnixSocket> socket_;
  ravel::rpc::usb_rpc_gen_Client client_;
};

}  // namespace bench

#endif  // DOCKHAND_BENCH_STUB_H
