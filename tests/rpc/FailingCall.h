#ifndef DOCKHAND_FAILINGCALL_H
#define DOCKHAND_FAILINGCALL_H

#include <string>

namespace transport_test {

/// Lets a call of the C library fail in this program while the object lives: for what no test can bring
/// about, as a disk that fails between two calls. One at a time.
///
/// The calls that can be made to fail are those that the program is linked to find here first (see
/// CMakeLists.txt).
class FailingCall {
 public:
  enum Times { once, always };

  /// `call`, by its name in the C library, fails with `error`.
  FailingCall(const std::string& call, int error, Times times = once);
  FailingCall(const FailingCall&) = delete;
  FailingCall& operator=(const FailingCall&) = delete;
  ~FailingCall();

  /// Lets that many of these calls through first.
  FailingCall& after(int successes);

  /// Whether the call was made and failed.
  bool happened() const;
};

}  // namespace transport_test

#endif  // DOCKHAND_FAILINGCALL_H
