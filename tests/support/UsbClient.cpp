#include "UsbClient.h"

#include <algorithm>

namespace testsupport {

namespace {

using Client = ravel::rpc::usb_rpc_gen_Client;
using TextOperation = void (Client::*)(ravel::rpc::ReturnValueWithString& _return, std::int16_t deviceId);

ravel::rpc::ReturnValueWithString textOf(Client& client, TextOperation operation, std::int16_t deviceId) {
  ravel::rpc::ReturnValueWithString answer;
  (client.*operation)(answer, deviceId);
  return answer;
}

}  // namespace

std::vector<std::int16_t> UsbClient::devices(bool includeHidden) {
  std::vector<std::int16_t> answer;
  (*this)->GetListOfInsertedDevices(answer, includeHidden);
  return answer;
}

ravel::rpc::ReturnValueWithString UsbClient::label(std::int16_t deviceId) {
  return textOf(*operator->(), &Client::GetDeviceLabel, deviceId);
}

ravel::rpc::ReturnValueWithString UsbClient::uuid(std::int16_t deviceId) {
  return textOf(*operator->(), &Client::GetDeviceUuid, deviceId);
}

ravel::rpc::ReturnValueWithString UsbClient::usbVersion(std::int16_t deviceId) {
  return textOf(*operator->(), &Client::GetDeviceUsbVersion, deviceId);
}

ravel::rpc::ReturnValueWithString UsbClient::mountPoint(std::int16_t deviceId) {
  return textOf(*operator->(), &Client::GetUsbMountPoint, deviceId);
}

ravel::rpc::ReturnValueWithString UsbClient::physicalDevice(std::int16_t deviceId) {
  return textOf(*operator->(), &Client::GetUsbPhysicalDevice, deviceId);
}

std::vector<std::string> UsbClient::files(std::int16_t deviceId, const std::string& directory,
                                          const std::string& extension) {
  std::vector<std::string> answer;
  (*this)->GetFilesByExtension(answer, deviceId, directory, extension);
  std::sort(answer.begin(), answer.end());
  return answer;
}

}  // namespace testsupport
