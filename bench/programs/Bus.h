#ifndef DOCKHAND_BENCH_BUS_H
#define DOCKHAND_BENCH_BUS_H

#include <systemd/sd-bus.h>

#include <cstddef>
#include <string>

namespace bench {

/// A connection to the peer over the system bus at DBUS_SYSTEM_BUS_ADDRESS. Calls wait for their reply. They
/// throw std::runtime_error if there is none, or if it is an error.
class Bus {
 public:
  Bus();
  Bus(const Bus&) = delete;
  Bus& operator=(const Bus&) = delete;
  ~Bus();

  /// The call that does nothing. Returns false if nobody owns the peer's name, and does not start the peer.
  bool ping();
  /// The number of block devices that the peer lists.
  std::size_t countBlockDevices();
  /// Mounts or unmounts ("Mount", "Unmount") the file system of an object.
  void callFilesystem(const std::string& object, const char* method);
  /// Reads one property, or all of an interface, and discards the values.
  void readProperty(const std::string& object, const char* interface, const char* property);
  void readProperties(const std::string& object, const char* interface);

 private:
  sd_bus* bus_ = nullptr;
};

}  // namespace bench

#endif  // DOCKHAND_BENCH_BUS_H
