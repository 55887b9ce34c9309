#ifndef DOCKHANDCTL_JSON_H
#define DOCKHANDCTL_JSON_H

#include <nlohmann/json.hpp>
#include <string>

namespace dockhandctl {

/// Keeps the order in which the members were added.
using Json = nlohmann::ordered_json;

/// The value on one line, in ASCII, so that no text from a disk can drive a terminal. Bytes that are not
/// UTF-8 become U+FFFD.
inline std::string toText(const Json& value) {
  constexpr int onOneLine = -1;
  constexpr bool asciiOnly = true;
  return value.dump(onOneLine, ' ', asciiOnly, Json::error_handler_t::replace);
}

}  // namespace dockhandctl

#endif  // DOCKHANDCTL_JSON_H
