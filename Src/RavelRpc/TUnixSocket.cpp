#include "TUnixSocket.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <thrift/transport/TTransportException.h>

#include <algorithm>
#include <cerrno>

#include "FileDescriptor.h"
#include "LocalSocketPath.h"

using apache::thrift::transport::TTransportException;

namespace ravel::rpc {

TUnixSocket::TUnixSocket(const std::string& host, int number)
    : TSocket(localSocketPath(number)), address_(localSocketAddress(path_)) {
  if (host != "localhost") {
    throw TTransportException(TTransportException::BAD_ARGS,
                              "local sockets are on localhost only, not on \"" + host + "\"");
  }
}

void TUnixSocket::open() {
  if (isOpen()) {
    return;
  }
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket.valid()) {
    throw TTransportException(TTransportException::NOT_OPEN, path_ + ": socket", errno);
  }
  connect(socket.get());
  setSocketFD(socket.release());
  // The base class stores the timeouts, but applies them only to a socket that it opened itself.
  setRecvTimeout(recvTimeout_);
  setSendTimeout(sendTimeout_);
}

void TUnixSocket::connect(int socket) const {
  using std::chrono::duration_cast;
  using std::chrono::microseconds;
  using std::chrono::steady_clock;

  const auto deadline = steady_clock::now() + std::chrono::milliseconds(connTimeout_);
  while (true) {
    if (connTimeout_ > 0) {
      // The send timeout limits how long a local connect waits for room in the backlog.
      const auto left = duration_cast<microseconds>(deadline - steady_clock::now()).count();
      if (left <= 0) {
        throw TTransportException(TTransportException::TIMED_OUT, path_ + ": connect timed out");
      }
      timeval timeout{};
      timeout.tv_sec = static_cast<time_t>(left / 1000000);
      timeout.tv_usec = static_cast<suseconds_t>(left % 1000000);
      if (::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout)) != 0) {
        throw TTransportException(TTransportException::NOT_OPEN, path_ + ": setsockopt", errno);
      }
    }
    if (::connect(socket, reinterpret_cast<const sockaddr*>(&address_), sizeof(address_)) == 0) {
      return;
    }
    if (errno == EAGAIN) {
      throw TTransportException(TTransportException::TIMED_OUT, path_ + ": connect timed out");
    }
    if (errno != EINTR) {
      throw TTransportException(TTransportException::NOT_OPEN, path_ + ": connect", errno);
    }
  }
}

std::uint32_t TUnixSocket::read(std::uint8_t* buffer, std::uint32_t length) {
  if (isOpen()) {
    waitForInput();
  }
  return TSocket::read(buffer, length);
}

bool TUnixSocket::hasInput() {
  pollfd input{getSocketFD(), POLLIN, 0};
  // No signal ends a poll that does not wait. If it fails, the socket counts as broken.
  return ::poll(&input, 1, 0) != 0;
}

void TUnixSocket::waitForInput() {
  using std::chrono::milliseconds;
  using std::chrono::steady_clock;

  const auto never = steady_clock::time_point::max();
  const auto timeoutEnd = recvTimeout_ > 0 ? steady_clock::now() + milliseconds(recvTimeout_) : never;
  const auto end = std::min(deadline_, timeoutEnd);
  if (end == never) {
    return;
  }
  // Poll, because recv with SO_RCVTIMEO fails with EINTR on any signal (also SIGCHLD for another thread's
  // program), and TSocket retries only a few times.
  pollfd input{getSocketFD(), POLLIN, 0};
  int ready = 0;
  do {
    const auto left = std::chrono::ceil<milliseconds>(end - steady_clock::now());
    // Check even if there is something to read, because it may never end.
    if (left <= milliseconds::zero()) {
      throw TTransportException(TTransportException::TIMED_OUT, path_ + ": no complete reply in time");
    }
    constexpr milliseconds maxWait = std::chrono::hours(1);
    ready = ::poll(&input, 1, static_cast<int>(std::min(left, maxWait).count()));
    if (ready < 0 && errno != EINTR) {
      throw TTransportException(TTransportException::UNKNOWN, path_ + ": poll", errno);
    }
  } while (ready <= 0);
}

}  // namespace ravel::rpc
