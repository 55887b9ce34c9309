#ifndef RAVELRPC_THRIFTOUTPUT_H
#define RAVELRPC_THRIFTOUTPUT_H

#include <thrift/Thrift.h>

// Thrift 0.24 no longer declares it. Nothing refers to it there.
namespace apache::thrift {
extern TOutput GlobalOutput;  // NOLINT(readability-redundant-declaration): only older versions declare it
}  // namespace apache::thrift

namespace ravel::rpc {

namespace internal {

template <typename Output>
auto thriftOutput(int /*preferred*/) -> decltype(Output::instance()) {
  return Output::instance();
}

template <typename Output>
Output& thriftOutput(long /*otherwise*/) {
  return apache::thrift::GlobalOutput;
}

}  // namespace internal

/// The output of Thrift's library: its messages, and ours that no caller gets, such as a client that
/// vanished. TOutput::instance() in Thrift 0.24, the variable GlobalOutput up to 0.19 at least.
///
/// Threads: any for messages; set its function before the first one.
inline apache::thrift::TOutput& thriftOutput() {
  return internal::thriftOutput<apache::thrift::TOutput>(0);
}

}  // namespace ravel::rpc

#endif  // RAVELRPC_THRIFTOUTPUT_H
