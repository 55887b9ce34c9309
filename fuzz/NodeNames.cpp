// Listings of /dev: every name becomes a record with the right number, or no record.
//
// The input has scans, separated by NUL bytes. A scan has the names in /dev, separated by slashes, because a
// file name may contain any other byte. The scan "!" fails.

#include <algorithm>
#include <cerrno>

#include "Fuzzing.h"

namespace {

struct Known {
  std::uint32_t number;
  std::string letters;
  bool hasPartition;
  bool seen;
};

std::string only(const std::string& text, const char* characters) {
  std::string found;
  for (std::size_t at = 0; (at = text.find_first_of(characters, at)) != std::string::npos; ++at) {
    found += text[at];
  }
  return found;
}

/// The records that the handler should have, in a list in the order of their numbers.
class Model {
 public:
  void failedScan() { forgetWhatWasSeen(); }

  void scan(std::vector<std::string> names) {
    forgetWhatWasSeen();
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
      if (name.find("usb_storage_") == std::string::npos) {
        continue;
      }
      const std::string text = name.substr(12);
      Known& device = recordOf(only(text, "abcdefghijklmnopqrstuvwxyz"));
      device.seen = true;
      device.hasPartition = device.hasPartition || !only(text, "0123456789").empty();
    }
    // The handler restarts at the second record after each removal, so a record that becomes the first
    // survives.
    for (std::size_t i = 0; i < known_.size();) {
      if (known_[i].seen) {
        ++i;
      } else {
        known_.erase(known_.begin() + static_cast<std::ptrdiff_t>(i));
        i = 1;
      }
    }
  }

  const std::vector<Known>& known() const { return known_; }

 private:
  void forgetWhatWasSeen() {
    for (Known& device : known_) {
      device.hasPartition = false;
      device.seen = false;
    }
  }

  Known& recordOf(const std::string& letters) {
    for (Known& device : known_) {
      if (device.letters == letters) {
        return device;
      }
    }
    std::size_t place = 0;
    while (place < known_.size() && known_[place].number == place + 1) {
      ++place;
    }
    const auto number = static_cast<std::uint32_t>(place + 1);
    return *known_.insert(known_.begin() + static_cast<std::ptrdiff_t>(place),
                          {number, letters, false, false});
  }

  std::vector<Known> known_;
};

void requireSame(const Model& model, TestableHandler& handler) {
  fuzz::require(handler.deviceMap.size() == model.known().size(), "every device has one record");
  for (const Known& device : model.known()) {
    const auto record = handler.deviceMap.find(device.number);
    fuzz::require(record != handler.deviceMap.end(), "a device has the first free number");
    fuzz::require(record->second.deviceName == device.letters, "a record has the letters of its node");
    fuzz::require(record->second.partitionCount == (device.hasPartition ? 1 : 0),
                  "a record knows whether its node has digits");
    fuzz::require(record->second.foundInScan == device.seen, "a record knows whether its node exists");

    ravel::rpc::ReturnValueWithString name;
    handler.GetUsbPhysicalDevice(name, static_cast<std::int16_t>(device.number));
    fuzz::require(name.success && name.text == device.letters + (device.hasPartition ? "1" : ""),
                  "the kernel name ends in 1 if there is a partition");
  }
}

void requireListed(const Model& model, const std::vector<std::int16_t>& listed) {
  std::vector<std::int16_t> numbers;
  for (const Known& device : model.known()) {
    numbers.push_back(static_cast<std::int16_t>(device.number));
  }
  fuzz::require(listed == numbers, "the list has every number once, in order");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  journal().clear();
  FakePlatform platform;
  TestableHandler handler(platform);
  Model model;
  for (const std::string& scan : fuzz::split(fuzz::textOf(data, size), '\0')) {
    platform.scandirError = scan == "!" ? EMFILE : 0;
    platform.deviceNodes = fuzz::directoryEntries(scan);
    if (scan == "!") {
      model.failedScan();
    } else {
      model.scan(platform.deviceNodes);
    }
    std::vector<std::int16_t> listed;
    handler.GetListOfInsertedDevices(listed, false);
    requireSame(model, handler);
    requireListed(model, listed);
  }
  return 0;
}
