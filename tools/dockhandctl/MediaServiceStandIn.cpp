#include "MediaServiceStandIn.h"

#include <thrift/transport/TTransportException.h>

#include <cerrno>
#include <mutex>
#include <utility>

#include "Failure.h"
#include "LimitedBinaryProtocol.h"
#include "LimitedBufferedTransport.h"
#include "LocalSocketPath.h"
#include "TUnixServerSocket.h"
#include "UsbService.h"
#include "corvane_rpc_gen_.h"

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

MediaServiceStandIn::MediaServiceStandIn(std::function<void(const Event&)> onEvent) {
  const std::string path = ravel::rpc::localSocketPath(mediaServiceNumber);
  if (isServed(path)) {
    throw Failure(mediaServiceRunning,
                  "a media service already serves \"" + path + "\"; stop it to watch in its place");
  }
  std::shared_ptr<ravel::rpc::TUnixServerSocket> socket;
  try {
    socket = std::make_shared<ravel::rpc::TUnixServerSocket>(mediaServiceNumber);
  } catch (const TTransportException& reason) {
    throw Failure(ownFailure, std::string("cannot take the media service's place: ") + reason.what());
  }
  server_ = std::make_unique<apache::thrift::server::TThreadedServer>(
      std::make_shared<ravel::rpc::corvane_rpc_gen_Processor>(std::make_shared<Handler>(std::move(onEvent))),
      socket, std::make_shared<ravel::rpc::LimitedBufferedTransportFactory>(),
      std::make_shared<ravel::rpc::LimitedBinaryProtocolFactory>());
  thread_ = std::thread([this] { server_->serve(); });
}

MediaServiceStandIn::~MediaServiceStandIn() {
  server_->stop();
  thread_.join();
}

}  // namespace dockhandctl
