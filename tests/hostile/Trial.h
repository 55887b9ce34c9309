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
#include "UsbClient.h"

namespace hostiletest {

/// A daemon, a media service that makes it wait, and a notification that waits. Several may run at once.
class Trial {
 public:
  /// Gets a connection of the daemon and the path of the daemon's socket.
  using Serve = std::function<void(int connection, const std::string& daemonSocket)>;

  /// Starts only the daemon. Without `serve`, the media service accepts no connections, and its backlog is
  /// full.
  explicit Trial(Serve serve);
  Trial(const Trial&) = delete;
  Trial& operator=(const Trial&) = delete;
  ~Trial();

  /// Starts the media service and the notification; returns once the daemon waits.
  void start();

  systest::Daemon& daemon() { return *daemon_; }
  /// A connection that is older than the notification.
  systest::UsbClient& held() { return *held_; }
  std::unique_ptr<systest::UsbClient> newClient() const;

  bool isUnderWay() const;
  /// Waits for the end of the notification; returns what its caller got.
  std::string end() { return notification_.get(); }
  /// Replaces the bad media service by a good one, and expects that a notification reaches it.
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
