#ifndef DOCKHANDCTL_USBSERVICE_H
#define DOCKHANDCTL_USBSERVICE_H

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "LimitedBufferedTransport.h"
#include "TUnixSocket.h"
#include "usb_rpc_gen_.h"

namespace dockhandctl {

/// One connection to the daemon, for the calls of one command. It occupies one of the daemon's ten workers,
/// so do not keep it while the program waits for a user or an event; see ask(). One thread at a time.
///
/// Every function may throw Failure: notReached, daemonFailed or noReplyInTime.
class UsbService {
 public:
  using Client = ravel::rpc::usb_rpc_gen_Client;
  /// An operation that returns a flag and a text about a device.
  using TextOperation = void (Client::*)(ravel::rpc::ReturnValueWithString&, std::int16_t);

  /// Connects. `timeout` limits the connecting, and the wait for each reply.
  explicit UsbService(std::chrono::milliseconds timeout);

  /// The process that serves the socket; 0 if unknown.
  pid_t daemon() const;

  /// Removes the time limit for replies.
  void waitForever() { socket_->setRecvTimeout(0); }

  /// Runs `operation` with the generated client, and returns its result.
  template <class Operation>
  auto call(Operation&& operation) {
    try {
      return std::forward<Operation>(operation)(client_);
    } catch (const apache::thrift::TException&) {
      rethrowAsFailure();
    }
  }

  ravel::rpc::ReturnValueWithString text(TextOperation operation, std::int16_t device);

  /// Rescans first. Ascending.
  std::vector<std::int16_t> deviceNumbers(bool includeHidden);

 private:
  [[noreturn]] static void rethrowAsFailure();

  std::shared_ptr<ravel::rpc::TUnixSocket> socket_;
  std::shared_ptr<ravel::rpc::LimitedBufferedTransport> transport_;
  Client client_;
};

/// Runs `questions` with a UsbService&, and returns its result after the connection has ended. Printing the
/// result may have to wait for its reader, such as a pager or a stopped terminal.
template <class Questions>
auto ask(std::chrono::milliseconds timeout, Questions&& questions) {
  UsbService service(timeout);
  return std::forward<Questions>(questions)(service);
}

/// 0 if somebody serves the local socket at `path`, otherwise the errno of a connection attempt. EAGAIN means
/// that it is served, but the backlog is full.
int connectionError(const std::string& path);

}  // namespace dockhandctl

#endif  // DOCKHANDCTL_USBSERVICE_H
