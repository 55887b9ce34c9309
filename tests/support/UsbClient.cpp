#include "UsbClient.h"

#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>

#include <algorithm>
#include <chrono>

namespace testsupport {

namespace {

constexpr std::chrono::seconds timeout{20};

using Client = ravel::rpc::usb_rpc_gen_Client;
using TextOperation = void (Client::*)(ravel::rpc::ReturnValueWithString& _return, std::int16_t deviceId);

ravel::rpc::ReturnValueWithString textOf(Client& client, TextOperation operation, std::int16_t deviceId) {
  ravel::rpc::ReturnValueWithString answer;
  (client.*operation)(answer, deviceId);
  return answer;
}

}  // namespace

UsbClient::UsbClient()
    : socket_(std::make_shared<ravel::rpc::TUnixSocket>("localhost", 9020)),
      client_(std::make_shared<apache::thrift::protocol::TBinaryProtocol>(
          std::make_shared<apache::thrift::transport::TBufferedTransport>(socket_))) {
  socket_->setRecvTimeout(static_cast<int>(std::chrono::milliseconds(timeout).count()));
  socket_->open();
}

std::vector<std::int16_t> UsbClient::devices(bool includeHidden) {
  std::vector<std::int16_t> answer;
  client_.GetListOfInsertedDevices(answer, includeHidden);
  return answer;
}

ravel::rpc::ReturnValueWithString UsbClient::label(std::int16_t deviceId) {
  return textOf(client_, &Client::GetDeviceLabel, deviceId);
}

ravel::rpc::ReturnValueWithString UsbClient::uuid(std::int16_t deviceId) {
  return textOf(client_, &Client::GetDeviceUuid, deviceId);
}

ravel::rpc::ReturnValueWithString UsbClient::usbVersion(std::int16_t deviceId) {
  return textOf(client_, &Client::GetDeviceUsbVersion, deviceId);
}

ravel::rpc::ReturnValueWithString UsbClient::mountPoint(std::int16_t deviceId) {
  return textOf(client_, &Client::GetUsbMountPoint, deviceId);
}

ravel::rpc::ReturnValueWithString UsbClient::physicalDevice(std::int16_t deviceId) {
  return textOf(client_, &Client::GetUsbPhysicalDevice, deviceId);
}

std::vector<std::string> UsbClient::files(std::int16_t deviceId, const std::string& directory,
                                          const std::string& extension) {
  std::vector<std::string> answer;
  client_.GetFilesByExtension(answer, deviceId, directory, extension);
  std::sort(answer.begin(), answer.end());
  return answer;
}

}  // namespace testsupport
