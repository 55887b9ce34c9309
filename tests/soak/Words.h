#ifndef DOCKHAND_TESTS_SOAK_WORDS_H
#define DOCKHAND_TESTS_SOAK_WORDS_H

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "Model.h"
#include "usb_rpc_types.h"

namespace soak {

// A reply as text: the handler and the model have different types, and a failure shows both replies.

inline std::string words(bool answer) {
  return answer ? "true" : "false";
}

inline std::string words(std::int32_t answer) {
  return std::to_string(answer);
}

inline std::string words(const Text& answer) {
  return words(answer.success) + " \"" + answer.text + '"';
}

inline std::string words(const ravel::rpc::ReturnValueWithString& answer) {
  return words(Text{answer.success, answer.text});
}

template <typename Element>
std::string words(const std::vector<Element>& list) {
  std::ostringstream text;
  for (const Element& element : list) {
    text << element << ' ';
  }
  return text.str();
}

}  // namespace soak

#endif  // DOCKHAND_TESTS_SOAK_WORDS_H
