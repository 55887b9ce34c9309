#include "BadMediaService.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <utility>

#include "TransportTestSupport.h"

namespace hostiletest {

using ravel::rpc::FileDescriptor;

BadMediaService::BadMediaService(const std::string& path, std::function<void(int)> serve)
    : path_(path),
      serve_(std::move(serve)),
      listener_(transport_test::plainListener(path, 128)),
      accepting_([this] { acceptConnections(); }) {}

BadMediaService::~BadMediaService() {
  shutdown(listener_.get(), SHUT_RDWR);
  accepting_.join();
  unlink(path_.c_str());
  for (const FileDescriptor& connection : connections_) {
    shutdown(connection.get(), SHUT_RDWR);
  }
  for (std::thread& thread : serving_) {
    thread.join();
  }
}

void BadMediaService::acceptConnections() {
  while (true) {
    FileDescriptor connection(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!connection.valid()) {
      return;
    }
    serving_.emplace_back([this, number = connection.get()] {
      serve_(number);
      shutdown(number, SHUT_RDWR);
    });
    connections_.push_back(std::move(connection));
  }
}

bool readRequest(int connection) {
  std::array<char, 512> request{};
  return recv(connection, request.data(), request.size(), 0) > 0;
}

bool send(int connection, const std::string& bytes) {
  return ::send(connection, bytes.data(), bytes.size(), MSG_NOSIGNAL) > 0;
}

void waitForTheEnd(int connection) {
  pollfd ended{connection, POLLRDHUP, 0};
  poll(&ended, 1, -1);
}

}  // namespace hostiletest
