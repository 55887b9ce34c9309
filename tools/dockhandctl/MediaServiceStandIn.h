#ifndef DOCKHANDCTL_MEDIASERVICESTANDIN_H
#define DOCKHANDCTL_MEDIASERVICESTANDIN_H

#include <thrift/server/TThreadedServer.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>

namespace dockhandctl {

/// One callback.
struct Event {
  std::string name;  ///< "added" or "removed"
  std::int16_t device;
  std::int8_t observerId;
  std::int32_t observer;
};

/// Serves the media service's socket in its place.
class MediaServiceStandIn {
 public:
  /// Serves from now on. Calls `onEvent` in threads of the server, one call at a time. Throws Failure:
  /// mediaServiceRunning if somebody serves the socket, ownFailure if the socket cannot be bound.
  explicit MediaServiceStandIn(std::function<void(const Event&)> onEvent);
  MediaServiceStandIn(const MediaServiceStandIn&) = delete;
  MediaServiceStandIn& operator=(const MediaServiceStandIn&) = delete;
  /// Ends the connections and removes the socket.
  ~MediaServiceStandIn();

 private:
  std::unique_ptr<apache::thrift::server::TThreadedServer> server_;
  std::thread thread_;
};

}  // namespace dockhandctl

#endif  // DOCKHANDCTL_MEDIASERVICESTANDIN_H
