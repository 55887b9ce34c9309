#ifndef TESTS_SUPPORT_USBCLIENT_H
#define TESTS_SUPPORT_USBCLIENT_H

#include <cstdint>
#include <string>
#include <vector>

#include "Connection.h"
#include "usb_rpc_gen_.h"

namespace testsupport {

/// One connection to the daemon. It has the generated client's operations, but returns their results.
class UsbClient : public Connection<ravel::rpc::usb_rpc_gen_Client> {
 public:
  std::vector<std::int16_t> devices(bool includeHidden = false);
  ravel::rpc::ReturnValueWithString label(std::int16_t deviceId);
  ravel::rpc::ReturnValueWithString uuid(std::int16_t deviceId);
  ravel::rpc::ReturnValueWithString usbVersion(std::int16_t deviceId);
  ravel::rpc::ReturnValueWithString mountPoint(std::int16_t deviceId);
  ravel::rpc::ReturnValueWithString physicalDevice(std::int16_t deviceId);
  /// Sorted.
  std::vector<std::string> files(std::int16_t deviceId, const std::string& directory,
                                 const std::string& extension);
};

}  // namespace testsupport

#endif  // TESTS_SUPPORT_USBCLIENT_H
