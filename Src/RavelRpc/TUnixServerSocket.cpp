#include "TUnixServerSocket.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thrift/transport/TSocket.h>
#include <thrift/transport/TTransportException.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <new>

#include "LocalSocketPath.h"
#include "ThriftOutput.h"

using apache::thrift::transport::TSocket;
using apache::thrift::transport::TTransport;
using apache::thrift::transport::TTransportException;

namespace ravel::rpc {
namespace {

constexpr int shortagePauseMilliseconds = 100;
constexpr const char* alreadyServed = "another process serves it; stop that, or set another RAVEL_SOCKET_DIR";

}  // namespace

/// An accepted connection. Any thread may end it, not only the one that serves it.
class TUnixServerSocket::Connection : public TSocket {
 public:
  using TSocket::TSocket;

  ~Connection() override { Connection::close(); }

  // The lock keeps end() from using a closed descriptor, whose number may be another connection's by then.
  void close() override {
    const std::lock_guard<std::mutex> lock(mutex_);
    TSocket::close();
  }

  void end() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (isOpen()) {
      // Fails only if the client was faster.
      static_cast<void>(::shutdown(getSocketFD(), SHUT_RDWR));
    }
  }

 private:
  std::mutex mutex_;
};

TUnixServerSocket::TUnixServerSocket(int number)
    : path_(localSocketPath(number)), address_(localSocketAddress(path_)) {
  interrupt_.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!interrupt_.valid()) {
    fail("eventfd", errno);
  }
  makeDirectory();
  requireTrustedDirectory();
  takeLock(number);
  removeStaleSocket();
  try {
    bindAndListen();
  } catch (...) {
    close();
    throw;
  }
}

TUnixServerSocket::~TUnixServerSocket() {
  TUnixServerSocket::close();
}

void TUnixServerSocket::makeDirectory() const {
  const std::string directory = localSocketDirectory();
  if (::mkdir(directory.c_str(), 0755) == 0) {
    if (::chmod(directory.c_str(), 0755) != 0) {
      fail("chmod of \"" + directory + '"', errno);
    }
  } else if (errno != EEXIST) {
    fail("mkdir of \"" + directory + '"', errno);
  }
}

void TUnixServerSocket::requireTrustedDirectory() const {
  const std::string directory = localSocketDirectory();
  struct stat status {};
  if (::lstat(directory.c_str(), &status) != 0) {
    fail("lstat of \"" + directory + '"', errno);
  }
  std::string reason;
  if (S_ISLNK(status.st_mode)) {
    reason = "is a symbolic link";
  } else if (!S_ISDIR(status.st_mode)) {
    reason = "is not a directory";
  } else if (status.st_uid != 0 && status.st_uid != ::geteuid()) {
    reason = "belongs to user " + std::to_string(status.st_uid);
  } else if ((status.st_mode & S_IWOTH) != 0) {
    reason = "is writable by everybody";
  }
  if (!reason.empty()) {
    throw TTransportException(
        TTransportException::NOT_OPEN,
        path_ + ": not made, since \"" + directory + "\" " + reason +
            "; use a directory of root or of this user that is not writable by everybody");
  }
}

void TUnixServerSocket::takeLock(int number) {
  const std::string lockPath = localSocketDirectory() + "/" + std::to_string(number) + ".lock";
  lock_.reset(::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!lock_.valid()) {
    fail("open of \"" + lockPath + '"', errno);
  }
  if (::flock(lock_.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno == EWOULDBLOCK) {
      throw TTransportException(TTransportException::NOT_OPEN, path_ + ": " + alreadyServed);
    }
    fail("flock of \"" + lockPath + '"', errno);
  }
}

void TUnixServerSocket::removeStaleSocket() const {
  struct stat status {};
  if (::lstat(path_.c_str(), &status) != 0) {
    if (errno == ENOENT) {
      return;
    }
    fail("lstat", errno);
  }
  if (!S_ISSOCK(status.st_mode)) {
    throw TTransportException(TTransportException::NOT_OPEN,
                              path_ + ": not a socket, so not replaced; remove it");
  }

  // The lock says nothing about a server that does not take it, so ask the socket itself.
  const FileDescriptor probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!probe.valid()) {
    fail("socket", errno);
  }
  const bool connected =
      ::connect(probe.get(), reinterpret_cast<const sockaddr*>(&address_), sizeof(address_)) == 0;
  const int error = connected ? 0 : errno;
  if (connected || error == EAGAIN) {  // EAGAIN: its backlog is full
    throw TTransportException(TTransportException::NOT_OPEN, path_ + ": " + alreadyServed);
  }
  if (error == ENOENT) {
    return;
  }
  if (error != ECONNREFUSED) {
    fail("not replaced, since another process may serve it", error);
  }
  if (::unlink(path_.c_str()) != 0 && errno != ENOENT) {
    fail("unlink of the stale socket", errno);
  }
}

void TUnixServerSocket::bindAndListen() {
  listening_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!listening_.valid()) {
    fail("socket", errno);
  }
  if (::bind(listening_.get(), reinterpret_cast<const sockaddr*>(&address_), sizeof(address_)) != 0) {
    fail("bind", errno);
  }
  struct stat status {};
  if (::lstat(path_.c_str(), &status) != 0) {
    const int error = errno;
    // It is ours, but close() could not recognise it.
    ::unlink(path_.c_str());
    fail("lstat", error);
  }
  device_ = status.st_dev;
  inode_ = status.st_ino;
  // Nobody can connect before listen, so nobody can use the mode that the umask left.
  if (::chmod(path_.c_str(), 0660) != 0) {
    fail("chmod", errno);
  }
  // The largest backlog: a server accepts no more connections than it can hold, and the others wait here.
  if (::listen(listening_.get(), SOMAXCONN) != 0) {
    fail("listen", errno);
  }
}

void TUnixServerSocket::interrupt() {
  const std::uint64_t one = 1;
  if (::write(interrupt_.get(), &one, sizeof(one)) < 0 && errno != EAGAIN) {  // EAGAIN: already interrupted
    thriftOutput().perror(path_ + ": cannot interrupt accept", errno);
  }
}

void TUnixServerSocket::interruptChildren() {
  const std::lock_guard<std::mutex> lock(connectionsMutex_);
  connectionsEnded_ = true;
  for (const auto& weak : connections_) {
    if (const auto connection = weak.lock()) {
      connection->end();
    }
  }
}

void TUnixServerSocket::close() {
  // Release the lock last: its next owner must not find our socket, and our unlink must not remove its
  // socket.
  struct stat status {};
  if (inode_ != 0 && ::lstat(path_.c_str(), &status) == 0 && status.st_dev == device_ &&
      status.st_ino == inode_ && ::unlink(path_.c_str()) != 0) {
    thriftOutput().perror(path_ + ": cannot remove the socket", errno);
  }
  inode_ = 0;
  listening_.reset();
  lock_.reset();
}

std::shared_ptr<TTransport> TUnixServerSocket::acceptImpl() {
  if (!isOpen()) {
    throw TTransportException(TTransportException::NOT_OPEN, path_ + ": not listening");
  }
  while (true) {
    if (!waitForConnection()) {
      throw TTransportException(TTransportException::INTERRUPTED, path_ + ": interrupted");
    }
    FileDescriptor accepted(::accept4(listening_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (accepted.valid()) {
      shortageReported_ = false;
      const auto connection = std::make_shared<Connection>(accepted.get());
      accepted.release();
      keep(connection);
      return connection;
    }
    switch (errno) {
      case EINTR:
      case EAGAIN:
      case ECONNABORTED:
        break;
      case EMFILE:
      case ENFILE:
      case ENOBUFS:
      case ENOMEM:
        // Any exception would end Thrift's listener, and the process would run on without it. A shortage
        // passes.
        waitOutShortage(errno);
        break;
      default:
        throw TTransportException(TTransportException::UNKNOWN, path_ + ": accept", errno);
    }
  }
}

void TUnixServerSocket::keep(const std::shared_ptr<Connection>& connection) {
  const std::lock_guard<std::mutex> lock(connectionsMutex_);
  connections_.erase(std::remove_if(connections_.begin(), connections_.end(),
                                    [](const auto& weak) { return weak.expired(); }),
                     connections_.end());
  connections_.push_back(connection);
  if (connectionsEnded_) {
    connection->end();
  }
}

/// False if interrupted. After true there may still be no connection.
bool TUnixServerSocket::waitForConnection() const {
  pollfd waiting[] = {{listening_.get(), POLLIN, 0}, {interrupt_.get(), POLLIN, 0}};
  if (::poll(waiting, 2, -1) < 0 && errno != EINTR) {
    throw TTransportException(TTransportException::UNKNOWN, path_ + ": poll", errno);
  }
  return waiting[1].revents == 0;
}

void TUnixServerSocket::waitOutShortage(int error) {
  if (!shortageReported_) {
    try {
      thriftOutput().perror(path_ + ": cannot accept connections, retrying", error);
      shortageReported_ = true;
    } catch (const std::bad_alloc&) {
      // A later try reports it, if the shortage lasts.
    }
  }
  pollfd interrupted{interrupt_.get(), POLLIN, 0};
  ::poll(&interrupted, 1, shortagePauseMilliseconds);
}

void TUnixServerSocket::fail(const std::string& what, int error) const {
  throw TTransportException(TTransportException::NOT_OPEN, path_ + ": " + what, error);
}

}  // namespace ravel::rpc
