#ifndef TESTS_HOSTILE_WIRE_H
#define TESTS_HOSTILE_WIRE_H

#include <thrift/protocol/TBinaryProtocol.h>

#include <functional>
#include <string>

namespace hostiletest {

/// What `write` writes, as it goes over the wire.
std::string written(const std::function<void(apache::thrift::protocol::TBinaryProtocol&)>& write);

/// A call of IsDeviceOpen.
std::string goodCall();

}  // namespace hostiletest

#endif  // TESTS_HOSTILE_WIRE_H
