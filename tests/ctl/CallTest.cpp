// Operations by the names that they have in the interface.

#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>

#include "CtlTest.h"

namespace ctltest {
namespace {

using nlohmann::json;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;

class Call : public CtlTest {};

/// The interface's operations, with the types of their arguments.
std::map<std::string, std::vector<std::string>> operationsOfTheInterface() {
  std::ifstream file(DOCKHAND_SOURCE_DIR "/rpc/usb_rpc.thrift");
  std::ostringstream text;
  text << file.rdbuf();
  const std::string idl = std::regex_replace(text.str(), std::regex(R"(/\*\*[^]*?\*/)"), "");
  std::map<std::string, std::vector<std::string>> result;
  const std::regex operation(R"(([A-Z]\w*)\(([^)]*)\))");
  for (std::sregex_iterator found(idl.begin(), idl.end(), operation), end; found != end; ++found) {
    std::vector<std::string>& types = result[(*found)[1]];
    const std::string parameters = (*found)[2];
    const std::regex parameter(R"(\d+: (\w+) \w+)");
    for (std::sregex_iterator one(parameters.begin(), parameters.end(), parameter); one != end; ++one) {
      types.push_back((*one)[1]);
    }
  }
  return result;
}

TEST_F(Call, ReachesEveryOperationOfTheInterface) {
  plugInStick();
  const std::map<std::string, std::string> values = {
      {"bool", "true"}, {"i8", "100"}, {"i16", "1"}, {"i32", "-70000"}, {"string", "/media/x y"}};
  const auto operations = operationsOfTheInterface();
  ASSERT_EQ(operations.size(), 25U);
  for (const auto& [name, types] : operations) {
    Arguments arguments = {"call", "--yes", name};
    for (const std::string& type : types) {
      arguments.push_back(values.at(type));
    }
    journal().clear();
    const Outcome outcome = run(arguments);
    EXPECT_TRUE(outcome.exitCode == 0 || outcome.exitCode == 1) << name << ": " << outcome.err;
    EXPECT_TRUE(json::accept(outcome.out)) << name << ": " << outcome.out;
    EXPECT_FALSE(journal().logs().empty()) << name;
  }
}

TEST_F(Call, PassesTypedArguments) {
  plugInStick();
  EXPECT_THAT(run({"call", "OpenDeviceAt", "1", "/media/[a]", "true"}), Ends(0, "true\n", ""));
  EXPECT_THAT(journal().logs(), Contains(HasSubstr("OpenDeviceAt(1, /media/[a], isPvrDevice=1)")));
  EXPECT_THAT(run({"call", "RegisterUsbAddedCallBack", "-128", "-1"}), Ends(0, "null\n", ""));
  EXPECT_THAT(journal().logs(), Contains(HasSubstr("observerId -128 and observer is 0xffffffff")));
  EXPECT_THAT(run({"call", "DeregisterUsbAddedCallBack", "-128", "2147483647"}), Ends(0, "null\n", ""));
  EXPECT_THAT(run({"call", "NotifyUsbRemoved", "--json"}), Ends(0, "null\n", ""));
  EXPECT_THAT(journal().logs(), Contains(HasSubstr("NotifyUsbRemoved(--json)")));
}

TEST_F(Call, PrintsResultsInJson) {
  plugInStick();
  EXPECT_THAT(run({"call", "GetListOfInsertedDevices", "false"}), Ends(0, "[1]\n", ""));
  EXPECT_THAT(run({"call", "GetDeviceLabel", "1"}), Ends(0,
                                                         R"({"success":true,"text":"HOLIDAY"})"
                                                         "\n",
                                                         ""));
  EXPECT_THAT(run({"call", "GetDeviceCapacity", "1"}), Ends(0, "15267\n", ""));
}

TEST_F(Call, EndsWithOneWhenTheAnswerIsNo) {
  plugInStick();
  EXPECT_THAT(run({"call", "CheckForAndUpdateNewDevices"}), Ends(0, "null\n", ""));
  EXPECT_THAT(run({"call", "IsDeviceOpen", "-1"}), Ends(1, "false\n", ""));
  EXPECT_THAT(run({"call", "GetUsbPhysicalDevice", "9"}), Ends(1,
                                                               R"({"success":false,"text":""})"
                                                               "\n",
                                                               ""));
}

TEST_F(Call, RefusesWhatDoesNotFit) {
  EXPECT_THAT(run({"call"}), Ends(2, "", HasSubstr("takes the name of an operation")));
  EXPECT_THAT(run({"call", "Format"}), Ends(2, "", HasSubstr("no operation is called Format")));
  EXPECT_THAT(run({"call", "OpenDeviceAt", "1"}),
              Ends(2, "", HasSubstr("OpenDeviceAt deviceId:i16 mountPoint:string isPvrDevice:bool")));
  for (const std::string number : {"32768", "x", "", "1x", "0x1"}) {
    EXPECT_THAT(run({"call", "OpenDevice", number}), Ends(2, "", HasSubstr("is no i16"))) << number;
  }
  EXPECT_THAT(run({"call", "RegisterUsbAddedCallBack", "128", "0"}), Ends(2, "", HasSubstr("is no i8")));
  EXPECT_THAT(run({"call", "GetListOfInsertedDevices", "1"}), Ends(2, "", HasSubstr("is no bool")));
}

TEST_F(Call, AsksBeforeItWipesADisk) {
  plugInStick();
  EXPECT_THAT(run({"call", "PrepareDeviceForPvr", "1"}),
              Ends(8, "", HasSubstr("device 1: nothing was done")));
  EXPECT_THAT(journal().logs(), Not(Contains(HasSubstr("PrepareDeviceForPvr"))));
}

}  // namespace
}  // namespace ctltest
