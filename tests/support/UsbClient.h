#ifndef TESTS_SUPPORT_USBCLIENT_H
#define TESTS_SUPPORT_USBCLIENT_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "TUnixSocket.h"
#include "usb_rpc_gen_.h"

namespace testsupport {

/// One connection to the daemon. It has the generated client's operations, but returns their results.
class UsbClient {
 public:
  /// Connects; throws if nobody accepts.
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

}  // namespace testsupport

#endif  // TESTS_SUPPORT_USBCLIENT_H
