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
/// so it is not kept while somebody is asked or something is waited for; see ask(). One thread at a time.
///
/// Everything throws Failure with the code that fits: notReached, daemonFailed, noAnswerInTime.
class UsbService {
 public:
  using Client = ravel::rpc::usb_rpc_gen_Client;
  /// An operation that answers with a flag and a text about a device.
  using TextOperation = void (Client::*)(ravel::rpc::ReturnValueWithString&, std::int16_t);

  /// Connects. `timeout` bounds the connecting and the wait for each answer.
  explicit UsbService(std::chrono::milliseconds timeout);

  /// The process that serves the socket; 0: not known.
  pid_t daemon() const;

  /// From now on an answer is waited for without end.
  void waitWithoutEnd() { socket_->setRecvTimeout(0); }

  /// Runs `operation`, which is given the generated client, and returns its result.
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

/// Runs `questions`, which is given a UsbService&, and returns its result once the connection has ended. Who
/// prints it may have to wait for its reader, be that a pager or a terminal that was stopped.
template <class Questions>
auto ask(std::chrono::milliseconds timeout, Questions&& questions) {
  UsbService service(timeout);
  return std::forward<Questions>(questions)(service);
}

/// Whether somebody serves the local socket at `path`: 0, or the errno of a connection attempt. EAGAIN means
/// served, with a full backlog.
int connectionError(const std::string& path);

}  // namespace dockhandctl

#endif  // DOCKHANDCTL_USBSERVICE_H
