#include "LocalSocketPath.h"

#include <sys/socket.h>
#include <thrift/transport/TTransportException.h>

#include <cstdlib>

using apache::thrift::transport::TTransportException;

namespace ravel::rpc {

std::string localSocketDirectory() {
  const char* directory = std::getenv("RAVEL_SOCKET_DIR");
  return directory != nullptr && *directory != '\0' ? directory : "/run/ravel";
}

std::string localSocketPath(int number) {
  return localSocketDirectory() + "/" + std::to_string(number) + ".sock";
}

sockaddr_un localSocketAddress(const std::string& path) {
  sockaddr_un address{};
  if (path.size() >= sizeof(address.sun_path)) {
    throw TTransportException(TTransportException::BAD_ARGS,
                              path + ": too long for a local socket, whose path has at most " +
                                  std::to_string(sizeof(address.sun_path) - 1) +
                                  " bytes; set a shorter RAVEL_SOCKET_DIR");
  }
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, path.size());
  return address;
}

}  // namespace ravel::rpc
