#ifndef DOCKHAND_TRANSPORTTESTSUPPORT_H
#define DOCKHAND_TRANSPORTTESTSUPPORT_H

#include <corvane_rpc_gen_.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thrift/server/TThreadPoolServer.h>
#include <thrift/transport/TSocket.h>
#include <thrift/transport/TTransportException.h>
#include <usb_rpc_gen_.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Eventually.h"
#include "FileDescriptor.h"
#include "LocalSocketPath.h"
#include "SocketDirectory.h"
#include "TUnixServerSocket.h"
#include "thrift_server.h"

namespace transport_test {

using testsupport::eventually;

/// Gives each test a socket directory of its own.
class SocketDirectoryTest : public ::testing::Test {
 private:
  const SocketDirectory sockets_;

 protected:
  const std::filesystem::path& directory_ = sockets_.path();
};

/// A listening socket without our lock.
inline ravel::rpc::FileDescriptor plainListener(const std::string& path, int backlog) {
  ravel::rpc::FileDescriptor listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_un address = ravel::rpc::localSocketAddress(path);
  EXPECT_EQ(bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  EXPECT_EQ(listen(listener.get(), backlog), 0);
  return listener;
}

/// Fills the backlog of a listener that does not accept.
inline std::vector<ravel::rpc::FileDescriptor> fillBacklog(const std::string& path) {
  const sockaddr_un address = ravel::rpc::localSocketAddress(path);
  std::vector<ravel::rpc::FileDescriptor> waiting;
  while (true) {
    ravel::rpc::FileDescriptor client(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
      EXPECT_EQ(errno, EAGAIN);
      return waiting;
    }
    waiting.push_back(std::move(client));
  }
}

using ErrorType = apache::thrift::transport::TTransportException::TTransportExceptionType;

using TransportError = std::pair<ErrorType, std::string>;

/// Returns type and text of the exception that `action` throws.
inline TransportError transportError(const std::function<void()>& action) {
  try {
    action();
  } catch (const apache::thrift::transport::TTransportException& error) {
    return {error.getType(), error.what()};
  }
  ADD_FAILURE() << "no TTransportException";
  return {};
}
inline ErrorType errorType(const std::function<void()>& action) {
  return transportError(action).first;
}
inline std::string errorText(const std::function<void()>& action) {
  return transportError(action).second;
}

/// Returns the numbers of the open descriptors.
inline std::vector<int> openDescriptors() {
  std::vector<int> numbers;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    numbers.push_back(std::stoi(entry.path().filename().string()));
  }
  // The descriptor of the directory itself was in the list.
  std::vector<int> open;
  for (const int number : numbers) {
    if (fcntl(number, F_GETFD) != -1) {
      open.push_back(number);
    }
  }
  return open;
}

class MediaHandler : public ravel::rpc::corvane_rpc_gen_If {
 public:
  void SendUsbAddedCallback(std::int16_t usbDevice, std::int8_t, std::int32_t) override { added(usbDevice); }
  void SendUsbRemovedCallback(std::int16_t usbDevice, std::int8_t, std::int32_t) override {
    removed(usbDevice);
  }

  std::function<void(std::int16_t)> added = [](std::int16_t) {};
  std::function<void(std::int16_t)> removed = [](std::int16_t) {};
};

class UsbHandler : public ravel::rpc::usb_rpc_gen_Null {
 public:
  bool OpenDevice(std::int16_t deviceId) override { return open(deviceId); }
  bool OpenDeviceAt(std::int16_t, const std::string& mountPoint, bool) override { return openAt(mountPoint); }

  std::function<bool(std::int16_t)> open = [](std::int16_t) { return true; };
  std::function<bool(const std::string&)> openAt = [](const std::string&) { return true; };
};

/// A server that can be stopped once its clients have left.
template <class If, class Processor, int Port, int Workers>
class StoppableServer
    : public ravel::rpc::thrift_server<If, Processor, Port, Workers, ravel::rpc::TUnixServerSocket> {
 public:
  using ravel::rpc::thrift_server<If, Processor, Port, Workers, ravel::rpc::TUnixServerSocket>::thrift_server;
  ~StoppableServer() override { stop(); }

  apache::thrift::server::TThreadPoolServer& server() {
    return dynamic_cast<apache::thrift::server::TThreadPoolServer&>(*this->thread->runnable());
  }

  void stop() {
    using apache::thrift::concurrency::Thread;
    if (this->thread && this->thread->getState() != Thread::uninitialized) {
      server().stop();
      EXPECT_TRUE(eventually([this] { return this->thread->getState() == Thread::stopped; }));
    }
  }

  void loseThread() { this->thread.reset(); }
};

using MediaServer =
    StoppableServer<ravel::rpc::corvane_rpc_gen_If, ravel::rpc::corvane_rpc_gen_Processor, 9014, 10>;
using UsbServer = StoppableServer<ravel::rpc::usb_rpc_gen_If, ravel::rpc::usb_rpc_gen_Processor, 9020, 10>;

/// A service on a local socket. It passes each connection to the test's function, one after the other.
class RawService {
 public:
  RawService(int number,
             std::function<void(const std::shared_ptr<apache::thrift::transport::TTransport>&)> serve)
      : socket_(number), thread_([this, serve = std::move(serve)] {
          try {
            while (true) {
              serve(socket_.accept());
            }
          } catch (const apache::thrift::transport::TTransportException& error) {
            EXPECT_EQ(error.getType(), apache::thrift::transport::TTransportException::INTERRUPTED);
          }
        }) {}
  ~RawService() {
    socket_.interrupt();
    thread_.join();
  }
  RawService(const RawService&) = delete;
  RawService& operator=(const RawService&) = delete;

 private:
  ravel::rpc::TUnixServerSocket socket_;
  std::thread thread_;
};

}  // namespace transport_test

#endif  // DOCKHAND_TRANSPORTTESTSUPPORT_H
