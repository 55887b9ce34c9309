// The operations of CheckedHandler, each with its operation of the model.

#include "CheckedHandler.h"
#include "Words.h"

namespace soak {

template <typename Operation, typename ExpectedAnswer>
auto CheckedHandler::checked(const std::string& name, const Operation& operation,
                             const ExpectedAnswer& expected) {
  decltype(operation()) answer{};
  check(
      name, [&] { return words(answer = operation()); },
      [&](Model& model, Calls& calls) { return words(expected(model, calls)); });
  return answer;
}

bool CheckedHandler::OpenDevice(std::int16_t deviceId) {
  return checked(
      "OpenDevice(" + std::to_string(deviceId) + ")", [&] { return DockhandClient::OpenDevice(deviceId); },
      [&](Model& model, Calls& calls) {
        return model.open(calls, deviceId, "/media/disk_" + std::to_string(deviceId), false);
      });
}

bool CheckedHandler::OpenDeviceAt(std::int16_t deviceId, const std::string& mountPoint, bool isPvrDevice) {
  return checked(
      "OpenDeviceAt(" + std::to_string(deviceId) + ", " + mountPoint + ", " + words(isPvrDevice) + ")",
      [&] { return DockhandClient::OpenDeviceAt(deviceId, mountPoint, isPvrDevice); },
      [&](Model& model, Calls& calls) { return model.open(calls, deviceId, mountPoint, isPvrDevice); });
}

bool CheckedHandler::CloseDevice(std::int16_t deviceId) {
  return checked(
      "CloseDevice(" + std::to_string(deviceId) + ")", [&] { return DockhandClient::CloseDevice(deviceId); },
      [&](Model& model, Calls& calls) { return model.close(calls, deviceId, false); });
}

bool CheckedHandler::CloseDeviceSafeRemoval(std::int16_t deviceId) {
  return checked(
      "CloseDeviceSafeRemoval(" + std::to_string(deviceId) + ")",
      [&] { return DockhandClient::CloseDeviceSafeRemoval(deviceId); },
      [&](Model& model, Calls& calls) { return model.close(calls, deviceId, true); });
}

bool CheckedHandler::IsDeviceOpen(std::int16_t deviceId) {
  return checked(
      "IsDeviceOpen(" + std::to_string(deviceId) + ")",
      [&] { return DockhandClient::IsDeviceOpen(deviceId); },
      [&](Model& model, Calls&) { return model.isOpen(deviceId); });
}

void CheckedHandler::CheckForAndUpdateNewDevices() {
  check(
      "CheckForAndUpdateNewDevices()",
      [&] {
        DockhandClient::CheckForAndUpdateNewDevices();
        return std::string();
      },
      [&](Model& model, Calls& calls) {
        model.scan(calls);
        return std::string();
      });
}

void CheckedHandler::GetListOfInsertedDevices(std::vector<std::int16_t>& _return, bool includeHidden) {
  check(
      "GetListOfInsertedDevices(" + words(includeHidden) + ")",
      [&] {
        DockhandClient::GetListOfInsertedDevices(_return, includeHidden);
        return words(_return);
      },
      [&](Model& model, Calls& calls) { return words(model.list(calls, includeHidden)); });
}

void CheckedHandler::NotifyUsbAdded(const std::string& usbDevice) {
  check(
      "NotifyUsbAdded(" + usbDevice + ")",
      [&] {
        DockhandClient::NotifyUsbAdded(usbDevice);
        return std::string();
      },
      [&](Model& model, Calls& calls) {
        model.notifyAdded(calls, usbDevice);
        return std::string();
      });
}

void CheckedHandler::NotifyUsbRemoved(const std::string& usbDevice) {
  check(
      "NotifyUsbRemoved(" + usbDevice + ")",
      [&] {
        DockhandClient::NotifyUsbRemoved(usbDevice);
        return std::string();
      },
      [&](Model& model, Calls& calls) {
        model.notifyRemoved(calls, usbDevice);
        return std::string();
      });
}

void CheckedHandler::GetDeviceLabel(ravel::rpc::ReturnValueWithString& _return, std::int16_t deviceId) {
  check(
      "GetDeviceLabel(" + std::to_string(deviceId) + ")",
      [&] {
        DockhandClient::GetDeviceLabel(_return, deviceId);
        return words(_return);
      },
      [&](Model& model, Calls& calls) { return words(model.label(calls, deviceId)); });
}

void CheckedHandler::GetDeviceUuid(ravel::rpc::ReturnValueWithString& _return, std::int16_t deviceId) {
  check(
      "GetDeviceUuid(" + std::to_string(deviceId) + ")",
      [&] {
        DockhandClient::GetDeviceUuid(_return, deviceId);
        return words(_return);
      },
      [&](Model& model, Calls& calls) { return words(model.uuid(calls, deviceId)); });
}

void CheckedHandler::GetDeviceUsbVersion(ravel::rpc::ReturnValueWithString& _return, std::int16_t deviceId) {
  check(
      "GetDeviceUsbVersion(" + std::to_string(deviceId) + ")",
      [&] {
        DockhandClient::GetDeviceUsbVersion(_return, deviceId);
        return words(_return);
      },
      [&](Model& model, Calls& calls) { return words(model.usbVersion(calls, deviceId)); });
}

std::int32_t CheckedHandler::GetDeviceType(std::int16_t deviceId) {
  return checked(
      "GetDeviceType(" + std::to_string(deviceId) + ")",
      [&] { return DockhandClient::GetDeviceType(deviceId); },
      [&](Model& model, Calls& calls) { return model.type(calls, deviceId); });
}

std::int32_t CheckedHandler::GetDeviceCapacity(std::int16_t deviceId) {
  return checked(
      "GetDeviceCapacity(" + std::to_string(deviceId) + ")",
      [&] { return DockhandClient::GetDeviceCapacity(deviceId); },
      [&](Model& model, Calls& calls) { return model.capacity(calls, deviceId); });
}

void CheckedHandler::GetUsbMountPoint(ravel::rpc::ReturnValueWithString& _return, std::int16_t deviceId) {
  check(
      "GetUsbMountPoint(" + std::to_string(deviceId) + ")",
      [&] {
        DockhandClient::GetUsbMountPoint(_return, deviceId);
        return words(_return);
      },
      [&](Model& model, Calls&) { return words(model.mountPoint(deviceId)); });
}

void CheckedHandler::GetUsbPhysicalDevice(ravel::rpc::ReturnValueWithString& _return, std::int16_t deviceId) {
  const std::size_t scansBefore = scans_;
  check(
      "GetUsbPhysicalDevice(" + std::to_string(deviceId) + ")",
      [&] {
        DockhandClient::GetUsbPhysicalDevice(_return, deviceId);
        return words(_return);
      },
      [&](Model& model, Calls&) {
        Text now = model.physicalDevice(deviceId);
        // Another client's scan, which may have failed, came in between. Both names are right: with and
        // without the partition.
        if (model.scans != scansBefore &&
            (now.text + '1' == _return.text || now.text == _return.text + '1')) {
          now.text = _return.text;
        }
        return words(now);
      });
}

void CheckedHandler::GetFilesByExtension(std::vector<std::string>& _return, std::int16_t deviceId,
                                         const std::string& directory, const std::string& extension) {
  check(
      "GetFilesByExtension(" + std::to_string(deviceId) + ", " + directory + ", " + extension + ")",
      [&] {
        DockhandClient::GetFilesByExtension(_return, deviceId, directory, extension);
        return words(_return);
      },
      [&](Model& model, Calls& calls) { return words(model.files(calls, deviceId, directory, extension)); });
}

bool CheckedHandler::RunDiskRepair(std::int16_t deviceId) {
  return checked(
      "RunDiskRepair(" + std::to_string(deviceId) + ")",
      [&] { return DockhandClient::RunDiskRepair(deviceId); },
      [&](Model& model, Calls& calls) { return model.repair(calls, deviceId); });
}

}  // namespace soak
