#ifndef DOCKHAND_FUZZ_FUZZING_H
#define DOCKHAND_FUZZ_FUZZING_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "FakePlatform.h"
#include "Journal.h"
#include "TestableHandler.h"

/// What the fuzz targets share.
///
/// Every target makes a new handler over a new fake system for each input, so that one input leaves nothing
/// to the next. Log lines are composed and written by the real logging library, every one of them; fuzz/run
/// has libFuzzer drop standard output and standard error.
namespace fuzz {

/// The input as it comes from libFuzzer.
inline std::string textOf(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

/// What stands between the separators, at least one text.
std::vector<std::string> split(const std::string& text, char separator);

/// The first `count` texts between NUL bytes, empty ones where there are fewer; the rest is ignored.
std::vector<std::string> fields(const std::string& text, std::size_t count);

/// The names between slashes, as a directory may hold them: none is empty, none is longer than 255 bytes.
std::vector<std::string> directoryEntries(const std::string& text);

/// Ends the program, which libFuzzer reports as a finding, when what must hold does not.
void require(bool holds, const char* whatMustHold);

/// That an operation, or a whole connection, has left nothing open on the fake system. A probe whose reading
/// failed is kept by the handler, one at a time.
void requireNothingOpen(const FakePlatform& platform);

}  // namespace fuzz

#endif  // DOCKHAND_FUZZ_FUZZING_H
