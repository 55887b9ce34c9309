#include "SystemLog.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>

namespace systest {

SystemLog::SystemLog()
    : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)), wake_(eventfd(0, EFD_CLOEXEC)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, "/dev/log");
  unlink(address.sun_path);
  if (socket_ < 0 || wake_ < 0 ||
      bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    throw std::runtime_error(std::string("/dev/log: ") + std::strerror(errno));
  }
  // The queue of the socket is short, and logger waits until it has room.
  receiver_ = std::thread([this] {
    std::array<pollfd, 2> waiting = {pollfd{socket_, POLLIN, 0}, pollfd{wake_, POLLIN, 0}};
    while (poll(waiting.data(), waiting.size(), -1) > 0 && waiting[1].revents == 0) {
      receive();
    }
  });
}

SystemLog::~SystemLog() {
  const std::uint64_t one = 1;
  if (write(wake_, &one, sizeof(one)) == sizeof(one)) {
    receiver_.join();
  }
  close(socket_);
  close(wake_);
  unlink("/dev/log");
}

std::string SystemLog::text() {
  receive();
  const std::lock_guard<std::mutex> lock(mutex_);
  return text_;
}

void SystemLog::receive() {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::array<char, 8192> message{};
  ssize_t size = 0;
  while ((size = recv(socket_, message.data(), message.size(), 0)) > 0) {
    text_.append(message.data(), static_cast<std::size_t>(size));
    text_ += '\n';
  }
}

}  // namespace systest
