#ifndef TESTS_HOSTILE_BADMEDIASERVICE_H
#define TESTS_HOSTILE_BADMEDIASERVICE_H

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "FileDescriptor.h"

namespace hostiletest {

/// Serves the media service's socket in a way of its own: `serve` is called with each connection, in a thread
/// for it alone. The connection ends when it returns.
class BadMediaService {
 public:
  BadMediaService(const std::string& path, std::function<void(int connection)> serve);
  BadMediaService(const BadMediaService&) = delete;
  BadMediaService& operator=(const BadMediaService&) = delete;
  /// Ends as a process does, with all its connections. The path is free again.
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

/// Reads one request, or what there is of it. False when the connection has ended.
bool readRequest(int connection);
/// False when the connection has ended.
bool send(int connection, const std::string& bytes);
/// Waits for the other side to end the connection.
void waitForTheEnd(int connection);

}  // namespace hostiletest

#endif  // TESTS_HOSTILE_BADMEDIASERVICE_H
