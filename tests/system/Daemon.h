#ifndef DOCKHAND_TESTS_SYSTEM_DAEMON_H
#define DOCKHAND_TESTS_SYSTEM_DAEMON_H

#include <sys/types.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "TUnixSocket.h"
#include "usb_rpc_gen_.h"

namespace systest {

/// Variables for the daemon's environment, which otherwise is that of the test.
using Environment = std::map<std::string, std::string>;

/// One connection to the daemon. The generated client's operations, with results returned rather than filled
/// in.
class UsbClient {
 public:
  /// Connects; throws when nobody accepts.
  UsbClient();

  ravel::rpc::usb_rpc_gen_Client* operator->() { return &client_; }

  std::vector<std::int16_t> devices(bool includeHidden = false);
  ravel::rpc::ReturnValueWithString label(std::int16_t deviceId);
  ravel::rpc::ReturnValueWithString uuid(std::int16_t deviceId);
  ravel::rpc::ReturnValueWithString usbVersion(std::int16_t deviceId);
  ravel::rpc::ReturnValueWithString mountPoint(std::int16_t deviceId);
  ravel::rpc::ReturnValueWithString physicalDevice(std::int16_t deviceId);
  /// Sorted.
  std::vector<std::string> files(std::int16_t deviceId, const std::string& directory,
                                 const std::string& extension);

 private:
  std::shared_ptr<ravel::rpc::TUnixSocket> socket_;
  ravel::rpc::usb_rpc_gen_Client client_;
};

/// A running daemon, killed with this object.
class Daemon {
 public:
  /// Starts the program and returns once it answers calls. Throws when it ends instead, or does not answer
  /// for long.
  explicit Daemon(const Environment& environment = {});
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;
  ~Daemon();

  pid_t pid() const { return pid_; }
  bool isRunning() const;
  /// Ends it with SIGKILL, so that it can clean up nothing.
  void kill();

  /// What it has written to standard error.
  std::string log() const;
  /// The same by lines.
  std::vector<std::string> logLines() const;

 private:
  pid_t pid_ = -1;
  bool reaped_ = false;
};

/// The end of a daemon that could not start.
struct FailedStart {
  /// As waitpid tells it; 0 would be success.
  int status = 0;
  std::string log;
};

/// Starts the program and waits for its end, which is to come by itself. Throws when it does not.
FailedStart startThatFails(const Environment& environment = {});

}  // namespace systest

#endif  // DOCKHAND_TESTS_SYSTEM_DAEMON_H
