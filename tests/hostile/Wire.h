#ifndef TESTS_HOSTILE_WIRE_H
#define TESTS_HOSTILE_WIRE_H

#include <thrift/protocol/TBinaryProtocol.h>

#include <functional>
#include <string>

namespace hostiletest {

/// Returns the bytes that `write` sends.
std::string written(const std::function<void(apache::thrift::protocol::TBinaryProtocol&)>& write);

/// Returns the bytes of a call of IsDeviceOpen.
std::string goodCall();

}  // namespace hostiletest

#endif  // TESTS_HOSTILE_WIRE_H
