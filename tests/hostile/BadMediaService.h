#ifndef TESTS_HOSTILE_BADMEDIASERVICE_H
#define TESTS_HOSTILE_BADMEDIASERVICE_H

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "FileDescriptor.h"

namespace hostiletest {

/// Serves the media service's socket. Each connection gets a thread, which calls `serve` with it and then
/// closes it.
class BadMediaService {
 public:
  BadMediaService(const std::string& path, std::function<void(int connection)> serve);
  BadMediaService(const BadMediaService&) = delete;
  BadMediaService& operator=(const BadMediaService&) = delete;
  /// Ends all connections, as a dying process does, and frees the path.
  ~BadMediaService();

 private:
  void acceptConnections();

  const std::string path_;
  const std::function<void(int)> serve_;
  ravel::rpc::FileDescriptor listener_;
  std::vector<ravel::rpc::FileDescriptor> connections_;
  std::vector<std::thread> serving_;
  std::thread accepting_;
};

/// Reads one request, or its beginning. False if the connection has ended.
bool readRequest(int connection);
/// False if the connection has ended.
bool send(int connection, const std::string& bytes);
/// Waits until the other side ends the connection.
void waitForTheEnd(int connection);

}  // namespace hostiletest

#endif  // TESTS_HOSTILE_BADMEDIASERVICE_H
