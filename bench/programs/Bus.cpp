#include "Bus.h"

#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <stdexcept>

namespace bench {

namespace {

constexpr const char* peer = "org.freedesktop.UDisks2";
constexpr const char* properties = "org.freedesktop.DBus.Properties";

struct Message {
  sd_bus_message* message = nullptr;

  Message() = default;
  Message(const Message&) = delete;
  Message& operator=(const Message&) = delete;
  ~Message() { sd_bus_message_unref(message); }
};

struct Error {
  sd_bus_error error = SD_BUS_ERROR_NULL;

  Error() = default;
  Error(const Error&) = delete;
  Error& operator=(const Error&) = delete;
  ~Error() { sd_bus_error_free(&error); }
};

void check(int result, const char* what, const Error& error = {}) {
  if (result < 0) {
    const char* const reason = error.error.message != nullptr ? error.error.message : std::strerror(-result);
    throw std::runtime_error(std::string(what) + ": " + reason);
  }
}

void makeCall(sd_bus* bus, Message& call, const std::string& object, const char* interface,
              const char* method) {
  check(sd_bus_message_new_method_call(bus, &call.message, peer, object.c_str(), interface, method), method);
}

void send(sd_bus* bus, const Message& call, const char* what, Message& answer) {
  Error error;
  check(sd_bus_call(bus, call.message, 0, &error.error, &answer.message), what, error);
}

void appendNoOptions(const Message& call) {
  check(sd_bus_message_open_container(call.message, SD_BUS_TYPE_ARRAY, "{sv}"), "options");
  check(sd_bus_message_close_container(call.message), "options");
}

}  // namespace

Bus::Bus() {
  check(sd_bus_open_system(&bus_), "system bus");
}

Bus::~Bus() {
  sd_bus_flush_close_unref(bus_);
}

bool Bus::ping() {
  Message call;
  makeCall(bus_, call, "/org/freedesktop/UDisks2", "org.freedesktop.DBus.Peer", "Ping");
  check(sd_bus_message_set_auto_start(call.message, 0), "Ping");
  Message answer;
  Error error;
  const int result = sd_bus_call(bus_, call.message, 0, &error.error, &answer.message);
  if (result < 0 && sd_bus_error_has_name(&error.error, SD_BUS_ERROR_NAME_HAS_NO_OWNER) != 0) {
    return false;
  }
  check(result, "Ping", error);
  return true;
}

std::size_t Bus::countBlockDevices() {
  Message call;
  makeCall(bus_, call, "/org/freedesktop/UDisks2/Manager", "org.freedesktop.UDisks2.Manager",
           "GetBlockDevices");
  appendNoOptions(call);
  Message answer;
  send(bus_, call, "GetBlockDevices", answer);
  check(sd_bus_message_enter_container(answer.message, SD_BUS_TYPE_ARRAY, "o"), "GetBlockDevices");
  std::size_t count = 0;
  const char* path = nullptr;
  while (sd_bus_message_read_basic(answer.message, SD_BUS_TYPE_OBJECT_PATH, &path) > 0) {
    ++count;
  }
  return count;
}

void Bus::callFilesystem(const std::string& object, const char* method) {
  Message call;
  makeCall(bus_, call, object, "org.freedesktop.UDisks2.Filesystem", method);
  appendNoOptions(call);
  Message answer;
  send(bus_, call, method, answer);
}

void Bus::readProperty(const std::string& object, const char* interface, const char* property) {
  Message call;
  makeCall(bus_, call, object, properties, "Get");
  check(sd_bus_message_append(call.message, "ss", interface, property), property);
  Message answer;
  send(bus_, call, property, answer);
}

void Bus::readProperties(const std::string& object, const char* interface) {
  Message call;
  makeCall(bus_, call, object, properties, "GetAll");
  check(sd_bus_message_append(call.message, "s", interface), interface);
  Message answer;
  send(bus_, call, interface, answer);
}

}  // namespace bench
