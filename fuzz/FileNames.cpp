// Directory entries with names of any bytes: the search returns the names with the extension.
//
// The input has these fields, separated by NUL bytes: the extension, the directory, and the names in it,
// separated by slashes.

#include "Fuzzing.h"

namespace {

bool endsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

/// A name without a dot is an extension as a whole. No extension contains a dot.
bool hasExtension(const std::string& name, const std::string& extension) {
  return extension.find('.') == std::string::npos && (name == extension || endsWith(name, "." + extension));
}

std::string upperCase(std::string text) {
  for (char& c : text) {
    c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
  }
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto input = fuzz::fields(fuzz::textOf(data, size), 3);
  const std::string& extension = input[0];
  const std::string& directory = input[1];
  const std::vector<std::string> names = fuzz::directoryEntries(input[2]);

  journal().clear();
  FakePlatform platform;
  platform.deviceNodes = {"usb_storage_sda"};
  platform.directories["/media/disk_1/" + directory] = names;
  TestableHandler handler(platform);
  handler.deviceMap.at(1).mountPoint = "/media/disk_1";

  std::vector<std::string> expected = {"was there"};
  for (const std::string& name : names) {
    const bool matches = hasExtension(name, extension) || hasExtension(name, upperCase(extension));
    if (matches && name != "." && name != "..") {
      expected.push_back(name);
    }
  }
  std::vector<std::string> found = {"was there"};
  handler.GetFilesByExtension(found, 1, directory, extension);
  fuzz::require(found == expected, "the names with the extension are found, in the directory's order");

  handler.GetFilesByExtension(found, 2, directory, extension);
  fuzz::require(found == expected, "a missing directory yields nothing");
  fuzz::requireNothingOpen(platform);
  return 0;
}
