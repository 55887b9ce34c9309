#ifndef TESTS_SUPPORT_ARGUMENTVECTOR_H
#define TESTS_SUPPORT_ARGUMENTVECTOR_H

#include <string>
#include <vector>

/// The words in the form of the exec functions: pointers into `words` with a null pointer at the end. `words`
/// must outlive them unchanged.
inline std::vector<char*> argumentVector(std::vector<std::string>& words) {
  std::vector<char*> pointers;
  pointers.reserve(words.size() + 1);
  for (std::string& word : words) {
    pointers.push_back(word.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

#endif  // TESTS_SUPPORT_ARGUMENTVECTOR_H
