#include "MediaService.h"

#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>

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

  std::vector<Callback> takeCallbacks() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(callbacks_, {});
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

MediaService::MediaService()
    : handler_(std::make_shared<Handler>()),
      server_(std::make_unique<apache::thrift::server::TThreadedServer>(
          std::make_shared<ravel::rpc::corvane_rpc_gen_Processor>(handler_),
          std::make_shared<ravel::rpc::TUnixServerSocket>(9014),
          std::make_shared<apache::thrift::transport::TBufferedTransportFactory>(),
          std::make_shared<apache::thrift::protocol::TBinaryProtocolFactory>())),
      thread_([this] { server_->serve(); }) {}

MediaService::~MediaService() {
  server_->stop();
  thread_.join();
}

std::vector<Callback> MediaService::callbacks() const {
  return handler_->callbacks();
}

std::vector<Callback> MediaService::takeCallbacks() {
  return handler_->takeCallbacks();
}

void MediaService::onCallback(std::function<void(const Callback&)> action) {
  handler_->onCallback(std::move(action));
}

}  // namespace testsupport
