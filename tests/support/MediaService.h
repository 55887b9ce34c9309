#ifndef TESTS_SUPPORT_MEDIASERVICE_H
#define TESTS_SUPPORT_MEDIASERVICE_H

#include <thrift/server/TThreadedServer.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

namespace testsupport {

/// One received callback.
struct Callback {
  std::string event;  ///< "added" or "removed"
  std::int16_t usbDevice = 0;
  int observerId = 0;
  std::int32_t observer = 0;

  bool operator==(const Callback& other) const {
    return event == other.event && usbDevice == other.usbDevice && observerId == other.observerId &&
           observer == other.observer;
  }
};

inline std::ostream& operator<<(std::ostream& out, const Callback& callback) {
  return out << callback.event << '(' << callback.usbDevice << ", " << callback.observerId << ", "
             << callback.observer << ')';
}

/// The media service on socket 9014, which the daemon calls.
class MediaService {
 public:
  MediaService();
  MediaService(const MediaService&) = delete;
  MediaService& operator=(const MediaService&) = delete;
  ~MediaService();

  /// The callbacks so far. The daemon waits for each reply, so all of them are here when a notification
  /// returns.
  std::vector<Callback> callbacks() const;
  /// Returns the callbacks so far, and clears them.
  std::vector<Callback> takeCallbacks();

  /// Runs `action` in each callback from now on, in the thread that serves it. The daemon gets an exception
  /// of `action` as a failure.
  void onCallback(std::function<void(const Callback&)> action);

 private:
  class Handler;

  std::shared_ptr<Handler> handler_;
  std::unique_ptr<apache::thrift::server::TThreadedServer> server_;
  std::thread thread_;
};

}  // namespace testsupport

#endif  // TESTS_SUPPORT_MEDIASERVICE_H
