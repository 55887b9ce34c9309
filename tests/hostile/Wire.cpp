#include "Wire.h"

#include <thrift/transport/TBufferTransports.h>

#include <memory>

#include "usb_rpc_gen_.h"

using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::transport::TMemoryBuffer;

namespace hostiletest {

std::string written(const std::function<void(TBinaryProtocol&)>& write) {
  const auto wire = std::make_shared<TMemoryBuffer>();
  TBinaryProtocol writer(wire);
  write(writer);
  return wire->getBufferAsString();
}

std::string goodCall() {
  const auto wire = std::make_shared<TMemoryBuffer>();
  ravel::rpc::usb_rpc_gen_Client(std::make_shared<TBinaryProtocol>(wire)).send_IsDeviceOpen(1);
  return wire->getBufferAsString();
}

}  // namespace hostiletest
