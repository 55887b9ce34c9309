#include "Model.h"

#include <sys/mount.h>

#include <algorithm>
#include <cerrno>
#include <sstream>

#include "ExpectedMounts.h"

namespace soak {

namespace {

bool isToleratedMkdirError(int error) {
  return error == EEXIST || error == EPERM;
}

bool isToleratedMountError(int error) {
  return error == EBUSY || error == EINVAL;
}

std::string hex(unsigned long number) {
  std::ostringstream text;
  text << std::hex << number;
  return text.str();
}

std::string pick(const std::string& text, char first, char last) {
  std::string picked;
  std::copy_if(text.begin(), text.end(), std::back_inserter(picked),
               [=](char c) { return c >= first && c <= last; });
  return picked;
}

int countOf(const std::string& name, const std::string& text) {
  int count = 0;
  for (auto at = text.find(name); at != std::string::npos; at = text.find(name, at + name.size())) {
    ++count;
  }
  return count;
}

}  // namespace

Record* Model::find(int device) {
  const auto found = device > 0 ? records.find(static_cast<unsigned>(device)) : records.end();
  return found != records.end() ? &found->second : nullptr;
}

const Record* Model::find(int device) const {
  const auto found = device > 0 ? records.find(static_cast<unsigned>(device)) : records.end();
  return found != records.end() ? &found->second : nullptr;
}

bool Model::openFile(Calls& calls, const std::string& path) const {
  const bool fails = calls.fail("open " + path) != 0;
  return !fails && (machine.diskAt(path) != nullptr || machine.read(path));
}

void Model::scan(Calls& calls) {
  ++scans;
  for (auto& [number, record] : records) {
    record.partition = false;
    record.seen = false;
  }
  if (calls.fail("scandir /dev") != 0) {
    return;
  }
  for (const std::string& node : machine.nodes()) {
    const std::string text = node.substr(std::string("usb_storage_").size());
    const bool hasDigits = !pick(text, '0', '9').empty();
    bool known = false;
    for (auto& [number, record] : records) {
      if (record.name == pick(text, 'a', 'z')) {
        record.partition = record.partition || hasDigits;
        record.seen = true;
        known = true;
      }
    }
    if (!known) {
      unsigned number = 1;
      while (records.count(number) != 0) {
        ++number;
      }
      Record record;
      record.name = pick(text, 'a', 'z');
      record.partition = hasDigits;
      record.seen = true;
      records[number] = record;
    }
  }
  // The walk restarts at the second record after each erasure: a vanished record that is now first survives.
  auto at = records.begin();
  while (at != records.end()) {
    if (at->second.seen) {
      ++at;
      continue;
    }
    records.erase(at);
    at = records.empty() ? records.end() : std::next(records.begin());
  }
}

std::vector<int> Model::list(Calls& calls, bool includeHidden) {
  scan(calls);
  std::vector<int> numbers;
  for (const auto& [number, record] : records) {
    if (record.lastNotice != 2 && !record.safelyRemoved && (includeHidden || !record.hidden)) {
      numbers.push_back(static_cast<int>(number));
    }
  }
  return numbers;
}

void Model::announce(const std::string& event, unsigned device) {
  for (const auto& [observerId, observer] : observers) {
    if (observerId != 7) {
      callbacks.push_back(event + ' ' + std::to_string(device) + ' ' + std::to_string(observerId) + ' ' +
                          std::to_string(observer));
    }
  }
}

void Model::notifyAdded(Calls& calls, const std::string& usbDevice) {
  scan(calls);
  if (!openFile(calls, "/proc/partitions") ||
      countOf(usbDevice, machine.read("/proc/partitions")->substr(0, 1023)) != 1) {
    return;
  }
  for (auto& [number, record] : records) {
    if (record.kernelName() == usbDevice) {
      if (record.lastNotice != 1) {
        record.lastNotice = 1;
        record.safelyRemoved = false;
        announce("added", number);
      }
      return;
    }
  }
}

void Model::notifyRemoved(Calls& calls, const std::string& usbDevice) {
  const auto device = std::find_if(records.begin(), records.end(),
                                   [&](const auto& entry) { return entry.second.kernelName() == usbDevice; });
  if (device == records.end()) {
    return;
  }
  const unsigned number = device->first;
  device->second.lastNotice = 2;
  if (device->second.open) {
    release(calls, device->second, true);
  }
  records.erase(device);
  announce("removed", number);
}

std::string Model::probe(Calls& calls, const Record& record, const std::string& key) const {
  const std::string node = "/dev/usb_storage_" + record.kernelName();
  const Disk* const disk = machine.diskAt(node);
  if (calls.fail("new_probe " + node) != 0 || disk == nullptr) {
    return {};
  }
  if (calls.fail("do_probe") != 0 || calls.fail("lookup " + key) != 0) {
    return {};
  }
  const std::string value = key == "LABEL" ? disk->label : key == "UUID" ? disk->uuid : disk->type;
  return value.size() > 1 ? value : std::string();
}

bool Model::isListedAsMounted(const std::string& path) const {
  std::string key;
  for (const char c : path) {
    key += c == ' ' ? "\\040" : std::string(1, c);
  }
  return machine.read("/proc/mounts")->substr(0, 1024).find(key + ' ') != std::string::npos;
}

bool Model::removeMount(Calls& calls, const std::string& path, bool lazy) {
  if (openFile(calls, "/proc/mounts") && isListedAsMounted(path)) {
    if (calls.fail("umount2 " + path + (lazy ? " 2" : " 0")) != 0 || machine.unmount(path) != 0) {
      return false;
    }
  }
  if (calls.fail("access " + path) == 0 && machine.exists(path)) {
    if (calls.fail("rmdir " + path) == 0) {
      machine.removeDirectory(path);
    }
  }
  return true;
}

int Model::tryMounts(Calls& calls, const std::string& node, const std::string& path,
                     const std::string& probedType) {
  int error = 0;
  for (const testsupport::ExpectedMount& attempt : testsupport::expectedMounts()) {
    if (!probedType.empty() && attempt.probedType != probedType) {
      continue;
    }
    error = calls.fail("mount " + node + ' ' + path + ' ' + attempt.type + ' ' + hex(attempt.flags) + ' ' +
                       attempt.options);
    if (error == 0) {
      error = machine.mount(node, path, attempt.type, attempt.flags, attempt.options);
    }
    if (error == 0) {
      return 0;
    }
  }
  return error;
}

bool Model::open(Calls& calls, int device, const std::string& mountPoint, bool isPvrDevice) {
  scan(calls);
  Record* const record = find(device);
  if (record == nullptr || record->lastNotice == 2 || record->safelyRemoved) {
    return false;
  }
  const std::string node = "/dev/usb_storage_" + record->kernelName();
  record->open = false;
  record->mountPoint = mountPoint;
  record->hidden = isPvrDevice;
  // A failed open does not matter here.
  openFile(calls, node);

  const std::string foundLabel = probe(calls, *record, "LABEL");
  removeMount(calls, "/media/" + (foundLabel.empty() ? "NONAME" : foundLabel), false);
  const std::string foundUuid = probe(calls, *record, "UUID");
  if (!foundUuid.empty()) {
    removeMount(calls, "/media/" + foundUuid, false);
  }
  removeMount(calls, "/media/disk", false);
  removeMount(calls, mountPoint, false);

  int error = calls.fail("mkdir " + mountPoint + " 775");
  if (error == 0) {
    error = machine.makeDirectory(mountPoint);
  }
  if (error == 0 || isToleratedMkdirError(error)) {
    const std::string probedType = probe(calls, *record, "TYPE");
    // A first pass without a row for the type tries nothing, and does not succeed.
    const bool hasRow =
        probedType.empty() ||
        std::any_of(testsupport::expectedMounts().begin(), testsupport::expectedMounts().end(),
                    [&](const auto& attempt) { return attempt.probedType == probedType; });
    if ((hasRow && tryMounts(calls, node, mountPoint, probedType) == 0) ||
        (error = tryMounts(calls, node, mountPoint, "")) == 0 || isToleratedMountError(error)) {
      record->open = true;
      return true;
    }
  }
  if (calls.fail("rmdir " + mountPoint) == 0) {
    machine.removeDirectory(mountPoint);
  }
  return false;
}

bool Model::release(Calls& calls, Record& record, bool safeRemoval) {
  if (record.mountPoint.empty() || !removeMount(calls, record.mountPoint, record.lastNotice == 2)) {
    return false;
  }
  record.open = false;
  record.mountPoint.clear();
  record.safelyRemoved = record.safelyRemoved || safeRemoval;
  return true;
}

bool Model::close(Calls& calls, int device, bool safeRemoval) {
  Record* const record = find(device);
  return record != nullptr && release(calls, *record, safeRemoval);
}

bool Model::isOpen(int device) const {
  const Record* const record = find(device);
  return record != nullptr && record->open;
}

Text Model::mountPoint(int device) const {
  const Record* const record = find(device);
  return {true, record != nullptr ? record->mountPoint : std::string()};
}

Text Model::physicalDevice(int device) const {
  const Record* const record = find(device);
  return {record != nullptr, record != nullptr ? record->kernelName() : std::string()};
}

Text Model::label(Calls& calls, int device) {
  const Record* const record = find(device);
  const std::string found = record != nullptr ? probe(calls, *record, "LABEL") : std::string();
  return {record != nullptr, found.empty() ? "NONAME" : found};
}

Text Model::uuid(Calls& calls, int device) {
  const Record* const record = find(device);
  const std::string found = record != nullptr ? probe(calls, *record, "UUID") : std::string();
  return {!found.empty(), found.empty() ? "0000-0000" : found};
}

int Model::type(Calls& calls, int device) {
  const Record* const record = find(device);
  if (record == nullptr) {
    return 0;
  }
  const std::string path = "/sys/block/" + record->name + "/removable";
  if (!openFile(calls, path)) {
    return 0;
  }
  return machine.read(path)->front() == '0' ? 1 : 2;
}

int Model::capacity(Calls& calls, int device) {
  const Record* const record = find(device);
  const std::string disk = record != nullptr ? "/dev/usb_storage_" + record->name : std::string();
  if (!openFile(calls, disk) || calls.fail("dev_size") != 0) {
    return 0;
  }
  return static_cast<int>(machine.diskAt(disk)->bytes / (1 << 20));
}

int Model::shell(Calls& calls, const std::string& command) {
  return calls.fail("system " + command) != 0 ? -1 : machine.shell(command);
}

int Model::loggedShell(Calls& calls, const std::string& command) {
  const int status = shell(calls, command + " 1>/tmp/Dockhand.log 2>&1");
  shell(calls, "logger -s -t Dockhand </tmp/Dockhand.log");
  return status;
}

Text Model::usbVersion(Calls& calls, int device) {
  const Record* const record = find(device);
  if (record == nullptr) {
    return {};
  }
  const std::string file = "/tmp/" + record->name + "_bcdUSB.txt";
  Text answer;
  if (shell(calls, "readUsbVersion.sh " + record->name + " > " + file) == 0) {
    answer.success = true;
    if (openFile(calls, file)) {
      const std::string text = *machine.read(file);
      answer.text = text.substr(0, text.find('\n'));
    }
  }
  shell(calls, "rm " + file);
  return answer;
}

std::vector<std::string> Model::files(Calls& calls, int device, const std::string& directory,
                                      const std::string& extension) const {
  const Record* const record = find(device);
  const std::string path = (record != nullptr ? record->mountPoint : std::string()) + '/' + directory;
  std::vector<std::string> matching;
  if (calls.fail("opendir " + path) != 0) {
    return matching;
  }
  std::string upper = extension;
  std::transform(upper.begin(), upper.end(), upper.begin(),
                 [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; });
  for (const std::string& name : machine.list(path).value_or(std::vector<std::string>())) {
    const auto dot = name.rfind('.');
    const std::string found = dot == std::string::npos ? name : name.substr(dot + 1);
    if (found == extension || found == upper) {
      matching.push_back(name);
    }
  }
  return matching;
}

bool Model::repair(Calls& calls, int device) {
  const Record* const record = find(device);
  if (record == nullptr) {
    return false;
  }
  const std::string type = probe(calls, *record, "TYPE");
  if (record->open || type != "xfs") {
    return false;
  }
  const std::string node = "/dev/usb_storage_" + record->kernelName();
  const std::string path = "/media/disk_tmp";
  int error = calls.fail("mkdir " + path + " 775");
  if (error == 0) {
    error = machine.makeDirectory(path);
  }
  if (error == 0 || isToleratedMkdirError(error)) {
    if (calls.fail("mount " + node + ' ' + path + " xfs 40a prjquota") == 0) {
      machine.mount(node, path, "xfs", MS_NOSUID | MS_NOEXEC | MS_NOATIME, "prjquota");
    }
    if (calls.fail("umount " + path) == 0) {
      machine.unmount(path);
    }
    if (calls.fail("rmdir " + path) == 0) {
      machine.removeDirectory(path);
    }
  }
  for (int run = 0; run < 10 && shell(calls, "umount -f " + node + " 1>/dev/null 2>&1") == 0; ++run) {
  }
  return loggedShell(calls, "xfs_repair " + node) == 0 || loggedShell(calls, "xfs_repair -L " + node) == 0;
}

}  // namespace soak
