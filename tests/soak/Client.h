#ifndef DOCKHAND_TESTS_SOAK_CLIENT_H
#define DOCKHAND_TESTS_SOAK_CLIENT_H

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "CheckedHandler.h"
#include "UsbClient.h"

namespace soak {

/// Somebody with sticks of his own, which nobody else plugs in or asks about. One thread at a time.
class Client {
 public:
  Client(CheckedHandler& handler, std::vector<Stick> sticks, std::uint64_t seed);

  /// From plugging in a stick to pulling it out: notice, list, open, questions, files, close, notice;
  /// sometimes without one of them, twice, or in another order. On a connection of its own.
  void round();

 private:
  bool chance(unsigned percent) { return random_() % 100 < percent; }
  unsigned upTo(unsigned most) { return static_cast<unsigned>(random_() % (most + 1)); }

  /// Lists the devices until the stick is known; 0 when it is not for long.
  std::int16_t list(testsupport::UsbClient& usb, const Stick& stick);
  void open(testsupport::UsbClient& usb, const Stick& stick, std::int16_t device);
  void ask(testsupport::UsbClient& usb, std::int16_t device);
  void close(testsupport::UsbClient& usb, const Stick& stick, std::int16_t device);
  /// Compares what the service answers now with the model's record of the stick.
  void compare(testsupport::UsbClient& usb, const Stick& stick, std::int16_t device);

  CheckedHandler& handler_;
  const std::vector<Stick> sticks_;
  std::mt19937_64 random_;
};

}  // namespace soak

#endif  // DOCKHAND_TESTS_SOAK_CLIENT_H
