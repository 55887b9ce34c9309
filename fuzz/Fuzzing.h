#ifndef DOCKHAND_FUZZ_FUZZING_H
#define DOCKHAND_FUZZ_FUZZING_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "FakePlatform.h"
#include "Journal.h"
#include "TestableHandler.h"

/// Shared by the fuzz targets.
///
/// Every target makes a new handler over a new fake system for each input, so that no state passes from one
/// input to the next. The real logging library writes every log line; fuzz/run makes libFuzzer discard
/// standard output and standard error.
namespace fuzz {

/// The input from libFuzzer as a string.
inline std::string textOf(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

/// The texts between the separators, at least one.
std::vector<std::string> split(const std::string& text, char separator);

/// The first `count` texts between NUL bytes. Missing ones are empty; the rest is ignored.
std::vector<std::string> fields(const std::string& text, std::size_t count);

/// The names between slashes, valid for a directory: none is empty or longer than 255 bytes.
std::vector<std::string> directoryEntries(const std::string& text);

/// Aborts the program if `holds` is false; libFuzzer reports that as a finding.
void require(bool holds, const char* whatMustHold);

/// Requires that an operation, or a whole connection, leaves nothing open on the fake system. The handler may
/// keep one failed probe.
void requireNothingOpen(const FakePlatform& platform);

}  // namespace fuzz

#endif  // DOCKHAND_FUZZ_FUZZING_H
