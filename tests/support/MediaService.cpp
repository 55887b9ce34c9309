#include "MediaService.h"

#include <sys/socket.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSocket.h>

#include <utility>

#include "TUnixServerSocket.h"
#include "corvane_rpc_gen_.h"

namespace testsupport {

class MediaService::Handler : public ravel::rpc::corvane_rpc_gen_If {
 public:
  void SendUsbAddedCallback(const std::int16_t usbDevice, const std::int8_t observerId,
                            const std::int32_t observer) override {
    receive({"added", usbDevice, observerId, observer});
  }

  void SendUsbRemovedCallback(const std::int16_t usbDevice, const std::int8_t observerId,
                              const std::int32_t observer) override {
    receive({"removed", usbDevice, observerId, observer});
  }

  std::vector<Callback> callbacks() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return callbacks_;
  }

  void onCallback(std::function<void(const Callback&)> action) {
    const std::lock_guard<std::mutex> lock(mutex_);
    action_ = std::move(action);
  }

 private:
  void receive(const Callback& callback) {
    std::function<void(const Callback&)> action;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      callbacks_.push_back(callback);
      action = action_;
    }
    if (action) {
      action(callback);
    }
  }

  mutable std::mutex mutex_;
  std::vector<Callback> callbacks_;
  std::function<void(const Callback&)> action_;
};

/// Ends its connections with itself, as a process that ends does: a server that stops waits for its clients,
/// and the daemon keeps its connection open.
class MediaService::ServerSocket : public ravel::rpc::TUnixServerSocket {
 public:
  using TUnixServerSocket::TUnixServerSocket;

  void endConnections() {
    const std::lock_guard<std::mutex> lock(mutex_);
    ended_ = true;
    for (const auto& connection : connections_) {
      if (const auto socket = connection.lock()) {
        shutdown(socket->getSocketFD(), SHUT_RDWR);
      }
    }
  }

 protected:
  std::shared_ptr<apache::thrift::transport::TTransport> acceptImpl() override {
    auto connection = TUnixServerSocket::acceptImpl();
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto socket = std::dynamic_pointer_cast<apache::thrift::transport::TSocket>(connection);
    connections_.push_back(socket);
    if (ended_) {
      shutdown(socket->getSocketFD(), SHUT_RDWR);
    }
    return connection;
  }

 private:
  std::mutex mutex_;
  bool ended_ = false;
  std::vector<std::weak_ptr<apache::thrift::transport::TSocket>> connections_;
};

MediaService::MediaService()
    : handler_(std::make_shared<Handler>()),
      socket_(std::make_shared<ServerSocket>(9014)),
      server_(std::make_unique<apache::thrift::server::TThreadedServer>(
          std::make_shared<ravel::rpc::corvane_rpc_gen_Processor>(handler_), socket_,
          std::make_shared<apache::thrift::transport::TBufferedTransportFactory>(),
          std::make_shared<apache::thrift::protocol::TBinaryProtocolFactory>())),
      thread_([this] { server_->serve(); }) {}

MediaService::~MediaService() {
  server_->stop();
  socket_->endConnections();
  thread_.join();
}

std::vector<Callback> MediaService::callbacks() const {
  return handler_->callbacks();
}

void MediaService::onCallback(std::function<void(const Callback&)> action) {
  handler_->onCallback(std::move(action));
}

}  // namespace testsupport
