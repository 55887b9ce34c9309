#ifndef DOCKHAND_FAILINGCALL_H
#define DOCKHAND_FAILINGCALL_H

#include <string>

namespace transport_test {

/// Makes a call of the C library fail in this program while the object lives. It stands for failures that no
/// test can cause, such as a disk that fails between two calls. At most one object may exist.
///
/// Only calls that CMakeLists.txt wraps can fail.
class FailingCall {
 public:
  enum Times { once, always };

  /// Makes `call`, a name of the C library, fail with the errno `error`.
  FailingCall(const std::string& call, int error, Times times = once);
  FailingCall(const FailingCall&) = delete;
  FailingCall& operator=(const FailingCall&) = delete;
  ~FailingCall();

  /// Lets the first `successes` calls succeed.
  FailingCall& after(int successes);

  /// Whether the call was made and failed.
  bool happened() const;
};

}  // namespace transport_test

#endif  // DOCKHAND_FAILINGCALL_H
