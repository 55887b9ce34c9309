#include "UsbService.h"

#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thrift/TApplicationException.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TTransportException.h>

#include <cerrno>
#include <cstdio>

#include "Failure.h"
#include "FileDescriptor.h"
#include "LocalSocketPath.h"
#include "Text.h"

using apache::thrift::TApplicationException;
using apache::thrift::TException;
using apache::thrift::transport::TTransportException;

namespace dockhandctl {
namespace {

constexpr int serviceNumber = 9020;
constexpr auto busy =
    "all ten workers of dockhand may be busy with connections that others keep open, or a slow operation "
    "delays the others; try again later, or with a longer --timeout";

std::string userName(uid_t user) {
  const passwd* const entry = getpwuid(user);
  return entry != nullptr ? entry->pw_name : std::to_string(user);
}

std::string groupName(gid_t group) {
  const ::group* const entry = getgrgid(group);
  return entry != nullptr ? entry->gr_name : std::to_string(group);
}

std::string permissionText(const std::string& path) {
  std::string object = path;
  struct stat status {};
  if (::stat(object.c_str(), &status) != 0) {
    object = ravel::rpc::localSocketDirectory();
    if (::stat(object.c_str(), &status) != 0) {
      return "no permission for \"" + path + "\": a directory above it cannot be searched; run as root";
    }
  }
  char mode[8];
  static_cast<void>(std::snprintf(mode, sizeof(mode), "%04o", status.st_mode & 07777U));
  const std::string group = groupName(status.st_gid);
  return "no permission for \"" + path + "\": \"" + object + "\" belongs to " + userName(status.st_uid) +
         " and group " + group + ", mode " + mode + "; run as root or as a member of a group that has access";
}

[[noreturn]] void failToConnect(const TTransportException& reason) {
  const std::string path = ravel::rpc::localSocketPath(serviceNumber);
  if (reason.getType() == TTransportException::TIMED_OUT) {
    throw Failure(noReplyInTime, "\"" + path + "\" accepts no connection: " + busy);
  }
  switch (connectionError(path)) {
    case ENOENT:
    case ENOTDIR:
    case ECONNREFUSED:
      throw Failure(notReached, "nobody serves \"" + path + "\"; start dockhand");
    case EACCES:
    case EPERM:
      throw Failure(notReached, permissionText(path));
    default:
      throw Failure(notReached, reason.what());
  }
}

}  // namespace

int connectionError(const std::string& path) {
  const sockaddr_un address = ravel::rpc::localSocketAddress(path);
  const ravel::rpc::FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket.valid()) {
    return errno;
  }
  const bool connected =
      ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  return connected ? 0 : errno;
}

UsbService::UsbService(std::chrono::milliseconds timeout)
    : socket_([] {
        try {
          return std::make_shared<ravel::rpc::TUnixSocket>("localhost", serviceNumber);
        } catch (const TTransportException& reason) {  // a RAVEL_SOCKET_DIR that is too long
          throw Failure(notReached, reason.what());
        }
      }()),
      transport_(std::make_shared<ravel::rpc::LimitedBufferedTransport>(socket_)),
      client_(std::make_shared<apache::thrift::protocol::TBinaryProtocol>(transport_)) {
  const auto milliseconds = static_cast<int>(timeout.count());
  socket_->setConnTimeout(milliseconds);
  socket_->setSendTimeout(milliseconds);
  socket_->setRecvTimeout(milliseconds);
  try {
    socket_->open();
  } catch (const TTransportException& reason) {
    failToConnect(reason);
  }
}

pid_t UsbService::daemon() const {
  ucred peer{};
  socklen_t size = sizeof(peer);
  const bool known = ::getsockopt(socket_->getSocketFD(), SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0;
  return known ? peer.pid : 0;
}

ravel::rpc::ReturnValueWithString UsbService::text(TextOperation operation, std::int16_t device) {
  ravel::rpc::ReturnValueWithString result;
  call([&](Client& client) { (client.*operation)(result, device); });
  return result;
}

std::vector<std::int16_t> UsbService::deviceNumbers(bool includeHidden) {
  std::vector<std::int16_t> result;
  call([&](Client& client) { client.GetListOfInsertedDevices(result, includeHidden); });
  return result;
}

void UsbService::rethrowAsFailure() {
  try {
    throw;
  } catch (const TApplicationException& failure) {
    throw Failure(daemonFailed, "dockhand replied with a failure: " + printable(failure.what()));
  } catch (const TTransportException& failure) {
    if (failure.getType() == TTransportException::TIMED_OUT) {
      throw Failure(noReplyInTime,
                    std::string("no reply in time: ") + busy + "; the operation may still complete");
    }
    throw Failure(daemonFailed,
                  std::string("the connection to dockhand ended before its reply: ") + failure.what());
  } catch (const TException& failure) {
    throw Failure(daemonFailed, std::string("dockhand's reply is invalid: ") + failure.what());
  }
}

}  // namespace dockhandctl
