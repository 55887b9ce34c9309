#include "MediaServiceStandIn.h"

#include <sys/socket.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TSocket.h>
#include <thrift/transport/TTransportException.h>

#include <cerrno>
#include <mutex>
#include <utility>
#include <vector>

#include "Failure.h"
#include "LimitedBufferedTransport.h"
#include "LocalSocketPath.h"
#include "TUnixServerSocket.h"
#include "UsbService.h"
#include "corvane_rpc_gen_.h"

using apache::thrift::transport::TSocket;
using apache::thrift::transport::TTransport;
using apache::thrift::transport::TTransportException;

namespace dockhandctl {
namespace {

constexpr int mediaServiceNumber = 9014;

class Handler : public ravel::rpc::corvane_rpc_gen_If {
 public:
  explicit Handler(std::function<void(const Event&)> onEvent) : onEvent_(std::move(onEvent)) {}

  void SendUsbAddedCallback(const std::int16_t usbDevice, const std::int8_t observerId,
                            const std::int32_t observer) override {
    pass({"added", usbDevice, observerId, observer});
  }

  void SendUsbRemovedCallback(const std::int16_t usbDevice, const std::int8_t observerId,
                              const std::int32_t observer) override {
    pass({"removed", usbDevice, observerId, observer});
  }

 private:
  void pass(const Event& event) {
    const std::lock_guard<std::mutex> lock(mutex_);
    onEvent_(event);
  }

  std::mutex mutex_;
  const std::function<void(const Event&)> onEvent_;
};

bool isServed(const std::string& path) {
  const int error = connectionError(path);
  return error == 0 || error == EAGAIN;
}

}  // namespace

/// A server that stops waits for its clients, and the daemon keeps its connection; this ends them.
class MediaServiceStandIn::ServerSocket : public ravel::rpc::TUnixServerSocket {
 public:
  using TUnixServerSocket::TUnixServerSocket;

  void endConnections() {
    const std::lock_guard<std::mutex> lock(mutex_);
    ended_ = true;
    for (const auto& connection : connections_) {
      if (const auto socket = connection.lock()) {
        end(*socket);
      }
    }
  }

 protected:
  std::shared_ptr<TTransport> acceptImpl() override {
    auto connection = TUnixServerSocket::acceptImpl();
    const auto socket = std::dynamic_pointer_cast<TSocket>(connection);
    const std::lock_guard<std::mutex> lock(mutex_);
    connections_.push_back(socket);
    if (ended_) {
      end(*socket);
    }
    return connection;
  }

 private:
  static void end(TSocket& socket) {
    // A connection that has ended by itself is just as well.
    static_cast<void>(::shutdown(socket.getSocketFD(), SHUT_RDWR));
  }

  std::mutex mutex_;
  bool ended_ = false;
  std::vector<std::weak_ptr<TSocket>> connections_;
};

MediaServiceStandIn::MediaServiceStandIn(std::function<void(const Event&)> onEvent) {
  const std::string path = ravel::rpc::localSocketPath(mediaServiceNumber);
  if (isServed(path)) {
    throw Failure(mediaServiceThere,
                  "a media service is there and serves " + path + "; watch is for when none is");
  }
  try {
    socket_ = std::make_shared<ServerSocket>(mediaServiceNumber);
  } catch (const TTransportException& reason) {
    throw Failure(ownFailure, std::string("cannot serve in the media service's place: ") + reason.what());
  }
  server_ = std::make_unique<apache::thrift::server::TThreadedServer>(
      std::make_shared<ravel::rpc::corvane_rpc_gen_Processor>(std::make_shared<Handler>(std::move(onEvent))),
      socket_, std::make_shared<ravel::rpc::LimitedBufferedTransportFactory>(),
      std::make_shared<apache::thrift::protocol::TBinaryProtocolFactory>());
  thread_ = std::thread([this] { server_->serve(); });
}

MediaServiceStandIn::~MediaServiceStandIn() {
  server_->stop();
  socket_->endConnections();
  thread_.join();
}

}  // namespace dockhandctl
