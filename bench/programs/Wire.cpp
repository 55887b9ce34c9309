#include "Wire.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <stdexcept>

#include "Sampling.h"

namespace bench {

RawConnection::RawConnection(const std::string& path)
    : socket_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  if (socket_ < 0 || connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    const std::string reason = errorText(path);
    close(socket_);
    throw std::runtime_error(reason);
  }
}

RawConnection::~RawConnection() {
  close(socket_);
}

void RawConnection::exchange(std::string_view message, std::string& answer) const {
  if (send(socket_, message.data(), message.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(message.size())) {
    throw std::runtime_error(errorText("send"));
  }
  std::size_t received = 0;
  while (received < answer.size()) {
    const ssize_t size = recv(socket_, answer.data() + received, answer.size() - received, 0);
    if (size <= 0) {
      throw std::runtime_error(errorText("recv"));
    }
    received += static_cast<std::size_t>(size);
  }
}

void RawConnection::callNothing() const {
  std::string answer(answerBytes.size(), '\0');
  exchange(callBytes, answer);
  if (answer != answerBytes) {
    throw std::runtime_error("the reply differs from the bytes in Wire.h");
  }
}

}  // namespace bench
