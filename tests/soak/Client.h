#ifndef DOCKHAND_TESTS_SOAK_CLIENT_H
#define DOCKHAND_TESTS_SOAK_CLIENT_H

#include <cstdint>
#include <random>
#include <vector>

#include "CheckedHandler.h"
#include "Machine.h"
#include "UsbClient.h"

namespace soak {

/// A client with its own sticks, which no other client plugs in or queries. One thread at a time.
class Client {
 public:
  Client(CheckedHandler& handler, std::vector<Stick> sticks, std::uint64_t seed);

  /// From plugging in a stick to pulling it out: notice, list, open, queries, files, close, notice. Sometimes
  /// omits a step, repeats it, or changes the order. Uses its own connection.
  void round();

 private:
  bool chance(unsigned percent) { return random_() % 100 < percent; }
  unsigned upTo(unsigned max) { return static_cast<unsigned>(random_() % (max + 1)); }

  /// Lists the devices until the stick has a number; returns 0 after too many tries.
  std::int16_t list(testsupport::UsbClient& usb, const Stick& stick);
  void open(testsupport::UsbClient& usb, const Stick& stick, std::int16_t device);
  void ask(testsupport::UsbClient& usb, std::int16_t device);
  void close(testsupport::UsbClient& usb, const Stick& stick, std::int16_t device);
  /// Compares the service's current replies with the model's record of the stick.
  void compare(testsupport::UsbClient& usb, const Stick& stick, std::int16_t device);

  CheckedHandler& handler_;
  const std::vector<Stick> sticks_;
  std::mt19937_64 random_;
};

}  // namespace soak

#endif  // DOCKHAND_TESTS_SOAK_CLIENT_H
