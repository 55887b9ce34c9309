#ifndef DOCKHAND_BENCH_BUS_H
#define DOCKHAND_BENCH_BUS_H

#include <systemd/sd-bus.h>

#include <cstddef>
#include <string>

namespace bench {

/// A connection to the peer over the system bus, as DBUS_SYSTEM_BUS_ADDRESS names it. Calls wait for their
/// answer and throw std::runtime_error when there is none, or an error.
class Bus {
 public:
  Bus();
  Bus(const Bus&) = delete;
  Bus& operator=(const Bus&) = delete;
  ~Bus();

  /// The call that does nothing. Answers false, and starts nothing, where nobody has the peer's name.
  bool ping();
  /// How many block devices the peer knows.
  std::size_t countBlockDevices();
  /// Mounts or unmounts ("Mount", "Unmount") the file system of an object.
  void callFilesystem(const std::string& object, const char* method);
  /// Reads one property, or all of an interface, and lets go of what comes.
  void readProperty(const std::string& object, const char* interface, const char* property);
  void readProperties(const std::string& object, const char* interface);

 private:
  sd_bus* bus_ = nullptr;
};

}  // namespace bench

#endif  // DOCKHAND_BENCH_BUS_H
