#ifndef TESTS_HOSTILE_TRIAL_H
#define TESTS_HOSTILE_TRIAL_H

#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "BadMediaService.h"
#include "Daemon.h"
#include "FileDescriptor.h"
#include "SocketDirectory.h"

namespace hostiletest {

/// A daemon with a media service that lets it wait, and a notification that waits. Several may run at once.
class Trial {
 public:
  /// What is done with a connection of the daemon's; also given the path of the daemon's socket.
  using Serve = std::function<void(int connection, const std::string& daemonSocket)>;

  /// Starts the daemon alone. Without `serve`, the media service will not accept connections, and have no
  /// room for another one.
  explicit Trial(Serve serve);
  Trial(const Trial&) = delete;
  Trial& operator=(const Trial&) = delete;
  ~Trial();

  /// Starts the media service and the notification, and returns when the daemon waits.
  void start();

  systest::Daemon& daemon() { return *daemon_; }
  /// A connection that was there before the notification.
  systest::UsbClient& held() { return *held_; }
  std::unique_ptr<systest::UsbClient> newClient() const;

  bool isUnderWay() const;
  /// Waits for the end of the notification: what its caller was told.
  std::string end() { return notification_.get(); }
  /// Puts a sound media service in the place of the bad one, and a notification gets through.
  void expectToGetThroughAgain();

 private:
  const Serve serve_;
  const SocketDirectory sockets_;
  std::optional<systest::Daemon> daemon_;
  std::unique_ptr<systest::UsbClient> held_;
  std::unique_ptr<systest::UsbClient> notifier_;
  std::unique_ptr<BadMediaService> service_;
  std::unique_ptr<ravel::rpc::FileDescriptor> listener_;
  std::vector<ravel::rpc::FileDescriptor> backlog_;
  std::future<std::string> notification_;
};

}  // namespace hostiletest

#endif  // TESTS_HOSTILE_TRIAL_H
