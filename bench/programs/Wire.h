#ifndef DOCKHAND_BENCH_WIRE_H
#define DOCKHAND_BENCH_WIRE_H

#include <string>
#include <string_view>

namespace bench {

/// The bytes of a call that does nothing, IsDeviceOpen(0), and of its reply, as the stubs write them.
inline constexpr std::string_view callBytes{
    "\x80\x01\x00\x01\x00\x00\x00\x0cIsDeviceOpen\x00\x00\x00\x00\x06\x00\x01\x00\x00\x00", 30};
inline constexpr std::string_view answerBytes{
    "\x80\x01\x00\x02\x00\x00\x00\x0cIsDeviceOpen\x00\x00\x00\x00\x02\x00\x00\x00\x00", 29};

/// A connection to a local socket, for bytes that are already encoded. Throws std::runtime_error.
class RawConnection {
 public:
  explicit RawConnection(const std::string& path);
  RawConnection(const RawConnection&) = delete;
  RawConnection& operator=(const RawConnection&) = delete;
  ~RawConnection();

  /// Sends a message and waits for a reply of `answer.size()` bytes.
  void exchange(std::string_view message, std::string& answer) const;
  /// Makes the call above; throws if the reply is not the one above.
  void callNothing() const;

 private:
  int socket_;
};

}  // namespace bench

#endif  // DOCKHAND_BENCH_WIRE_H
