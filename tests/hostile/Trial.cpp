#include "Trial.h"

#include <thrift/TApplicationException.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <exception>
#include <utility>

#include "HostileTest.h"
#include "TransportTestSupport.h"

namespace hostiletest {

Trial::Trial(Serve serve) : serve_(std::move(serve)) {
  setenv("TMPDIR", sockets_.path().c_str(), 1);
  daemon_.emplace();
  unsetenv("TMPDIR");
  held_ = newClient();
  notifier_ = newClient();
  (*held_)->RegisterUsbAddedCallBack(7, 70);
  (*notifier_)->IsDeviceOpen(1);
}

void Trial::start() {
  const std::string path = sockets_.path() / "9014.sock";
  const std::string daemonSocket = sockets_.path() / "9020.sock";
  if (serve_) {
    service_ = std::make_unique<BadMediaService>(
        path, [this, daemonSocket](int connection) { serve_(connection, daemonSocket); });
  } else {
    listener_ = std::make_unique<ravel::rpc::FileDescriptor>(transport_test::plainListener(path, 0));
    backlog_ = transport_test::fillBacklog(path);
  }
  const std::size_t before = descriptorsOf(*daemon_);
  notification_ = std::async(std::launch::async, [this]() -> std::string {
    try {
      (*notifier_)->NotifyUsbXriteAdded();
      return "success";
    } catch (const apache::thrift::TApplicationException& failure) {
      return failure.what();
    } catch (const std::exception& failure) {
      return std::string("no answer: ") + failure.what();
    }
  });
  // One descriptor is the daemon's end of the connection to the media service.
  EXPECT_TRUE(eventually([&] { return descriptorsOf(*daemon_) > before; }));
}

Trial::~Trial() {
  // A client that still waits for it sees its connection end.
  daemon_->kill();
}

std::unique_ptr<systest::UsbClient> Trial::newClient() const {
  setenv("RAVEL_SOCKET_DIR", sockets_.path().c_str(), 1);
  return std::make_unique<systest::UsbClient>();
}

bool Trial::isUnderWay() const {
  return notification_.wait_for(std::chrono::seconds(0)) != std::future_status::ready;
}

void Trial::expectToGetThroughAgain() {
  service_.reset();
  listener_.reset();
  unlink((sockets_.path() / "9014.sock").c_str());
  setenv("RAVEL_SOCKET_DIR", sockets_.path().c_str(), 1);
  const MediaService sound;
  (*notifier_)->NotifyUsbXriteAdded();
  EXPECT_THAT(sound.callbacks(), testing::Contains(Callback{"added", -1, 7, 70}));
}

}  // namespace hostiletest
