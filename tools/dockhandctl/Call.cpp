#include <charconv>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iostream>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "Commands.h"
#include "Failure.h"
#include "Json.h"
#include "Text.h"
#include "UsbService.h"

namespace dockhandctl {
namespace {

using Client = UsbService::Client;
using ravel::rpc::ReturnValueWithString;

enum class Type { flag, i8, i16, i32, text };

struct Parameter {
  const char* name;
  Type type;
};

/// One argument. Converts to the type of its parameter.
struct Argument {
  std::string text;
  std::int32_t number = 0;

  operator std::int8_t() const { return static_cast<std::int8_t>(number); }
  operator std::int16_t() const { return static_cast<std::int16_t>(number); }
  operator std::int32_t() const { return number; }
  operator bool() const { return number != 0; }
  operator const std::string&() const { return text; }
};

using Arguments = std::vector<Argument>;

struct Operation {
  const char* name;
  std::vector<Parameter> parameters;
  std::function<Json(Client&, const Arguments&)> run;
  bool slow = false;
};

const Parameter deviceId{"deviceId", Type::i16};
const Parameter usbDevice{"usbDevice", Type::text};
const Parameter observerId{"observerId", Type::i8};
const Parameter observerValue{"observer", Type::i32};

template <class Method>
Operation withoutResult(const char* name, std::vector<Parameter> parameters, Method method) {
  return {name, std::move(parameters), [method](Client& client, const Arguments& arguments) {
            method(client, arguments);
            return Json(nullptr);
          }};
}

Operation textOperation(const char* name, UsbService::TextOperation method) {
  return {name, {deviceId}, [method](Client& client, const Arguments& arguments) -> Json {
            ReturnValueWithString result;
            (client.*method)(result, arguments[0]);
            return {{"success", result.success}, {"text", result.text}};
          }};
}

template <class Result>
Operation deviceOperation(const char* name, Result (Client::*method)(std::int16_t), bool slow = false) {
  return {
      name,
      {deviceId},
      [method](Client& client, const Arguments& arguments) -> Json { return (client.*method)(arguments[0]); },
      slow};
}

const std::vector<Operation>& operations() {
  static const std::vector<Operation> all = {
      withoutResult("NotifyUsbAdded", {usbDevice},
                    [](Client& c, const Arguments& a) { c.NotifyUsbAdded(a[0]); }),
      withoutResult("NotifyUsbRemoved", {usbDevice},
                    [](Client& c, const Arguments& a) { c.NotifyUsbRemoved(a[0]); }),
      withoutResult("NotifyUsbXriteAdded", {}, [](Client& c, const Arguments&) { c.NotifyUsbXriteAdded(); }),
      withoutResult("NotifyUsbXriteRemoved", {},
                    [](Client& c, const Arguments&) { c.NotifyUsbXriteRemoved(); }),
      {"GetListOfInsertedDevices",
       {{"includeHidden", Type::flag}},
       [](Client& c, const Arguments& a) -> Json {
         std::vector<std::int16_t> devices;
         c.GetListOfInsertedDevices(devices, a[0]);
         return devices;
       }},
      deviceOperation("OpenDevice", &Client::OpenDevice),
      {"OpenDeviceAt",
       {deviceId, {"mountPoint", Type::text}, {"isPvrDevice", Type::flag}},
       [](Client& c, const Arguments& a) -> Json { return c.OpenDeviceAt(a[0], a[1], a[2]); }},
      deviceOperation("CloseDevice", &Client::CloseDevice),
      deviceOperation("CloseDeviceSafeRemoval", &Client::CloseDeviceSafeRemoval),
      deviceOperation("IsDeviceOpen", &Client::IsDeviceOpen),
      textOperation("GetDeviceLabel", &Client::GetDeviceLabel),
      textOperation("GetDeviceUuid", &Client::GetDeviceUuid),
      textOperation("GetDeviceUsbVersion", &Client::GetDeviceUsbVersion),
      deviceOperation("GetDeviceType", &Client::GetDeviceType),
      deviceOperation("GetDeviceCapacity", &Client::GetDeviceCapacity),
      deviceOperation("RunDiskRepair", &Client::RunDiskRepair, true),
      textOperation("GetUsbMountPoint", &Client::GetUsbMountPoint),
      textOperation("GetUsbPhysicalDevice", &Client::GetUsbPhysicalDevice),
      {"GetFilesByExtension",
       {deviceId, {"directory", Type::text}, {"extension", Type::text}},
       [](Client& c, const Arguments& a) -> Json {
         std::vector<std::string> files;
         c.GetFilesByExtension(files, a[0], a[1], a[2]);
         return files;
       }},
      withoutResult("RegisterUsbAddedCallBack", {observerId, observerValue},
                    [](Client& c, const Arguments& a) { c.RegisterUsbAddedCallBack(a[0], a[1]); }),
      withoutResult("RegisterUsbRemovedCallBack", {observerId, observerValue},
                    [](Client& c, const Arguments& a) { c.RegisterUsbRemovedCallBack(a[0], a[1]); }),
      withoutResult("DeregisterUsbAddedCallBack", {observerId, observerValue},
                    [](Client& c, const Arguments& a) { c.DeregisterUsbAddedCallBack(a[0], a[1]); }),
      withoutResult("DeregisterUsbRemovedCallBack", {observerId, observerValue},
                    [](Client& c, const Arguments& a) { c.DeregisterUsbRemovedCallBack(a[0], a[1]); }),
      withoutResult("CheckForAndUpdateNewDevices", {},
                    [](Client& c, const Arguments&) { c.CheckForAndUpdateNewDevices(); }),
      deviceOperation("PrepareDeviceForPvr", &Client::PrepareDeviceForPvr, true)};
  return all;
}

std::string typeText(Type type) {
  switch (type) {
    case Type::flag:
      return "bool";
    case Type::i8:
      return "i8";
    case Type::i16:
      return "i16";
    case Type::i32:
      return "i32";
    case Type::text:
      break;
  }
  return "string";
}

std::string signatureOf(const Operation& operation) {
  std::string result = operation.name;
  for (const Parameter& parameter : operation.parameters) {
    result += std::string(" ") + parameter.name + ":" + typeText(parameter.type);
  }
  return result;
}

[[noreturn]] void refuse(const Parameter& parameter, const std::string& text) {
  throw Failure(wrongUsage, std::string(parameter.name) + ": \"" + printable(text) + "\" is not " +
                                (parameter.type == Type::flag ? "a " : "an ") + typeText(parameter.type) +
                                (parameter.type == Type::flag ? " (true, false)" : ""));
}

template <class Number>
std::int32_t parseNumber(const Parameter& parameter, const std::string& text) {
  Number number{};
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stop != end) {
    refuse(parameter, text);
  }
  return number;
}

Argument parse(const Parameter& parameter, const std::string& text) {
  Argument argument{text};
  switch (parameter.type) {
    case Type::flag:
      if (text != "true" && text != "false") {
        refuse(parameter, text);
      }
      argument.number = text == "true" ? 1 : 0;
      break;
    case Type::i8:
      argument.number = parseNumber<std::int8_t>(parameter, text);
      break;
    case Type::i16:
      argument.number = parseNumber<std::int16_t>(parameter, text);
      break;
    case Type::i32:
      argument.number = parseNumber<std::int32_t>(parameter, text);
      break;
    case Type::text:
      break;
  }
  return argument;
}

const Operation& find(const std::string& name) {
  for (const Operation& operation : operations()) {
    if (operation.name == name) {
      return operation;
    }
  }
  throw Failure(wrongUsage, "there is no operation \"" + printable(name) + "\"; see dockhandctl call --help");
}

bool isNo(const Json& result) {
  return result == Json(false) || (result.is_object() && !result.at("success").get<bool>());
}

}  // namespace

std::string operationList() {
  std::string result;
  for (const Operation& operation : operations()) {
    result += "  " + signatureOf(operation) + "\n";
  }
  return result;
}

int call(const Settings& settings, const std::string& name, const std::vector<std::string>& texts,
         bool confirmed) {
  const Operation& operation = find(name);
  if (texts.size() != operation.parameters.size()) {
    throw Failure(wrongUsage, "wrong number of arguments; usage: call " + signatureOf(operation));
  }
  Arguments arguments;
  for (std::size_t i = 0; i < texts.size(); ++i) {
    arguments.push_back(parse(operation.parameters[i], texts[i]));
  }
  if (name == "PrepareDeviceForPvr" && !confirmed) {
    confirmWiping(settings, arguments[0]);
  }
  const Json result = ask(settings.timeout, [&](UsbService& service) {
    if (operation.slow) {
      service.waitForever();
    }
    return service.call([&](Client& client) { return operation.run(client, arguments); });
  });
  std::cout << toText(result) << '\n';
  return isNo(result) ? answerIsNo : done;
}

}  // namespace dockhandctl
