// Operations by their names in the interface.

#include <nlohmann/json.hpp>
#include <regex>

#include "CtlTest.h"

namespace ctltest {
namespace {

using nlohmann::json;

class Call : public CtlTest {};

TEST_F(Call, ReachesEveryOperationOfTheInterface) {
  plugInStick();
  const std::map<std::string, std::string> values = {
      {"bool", "true"}, {"i8", "100"}, {"i16", "1"}, {"i32", "-70000"}, {"string", "/media/x y"}};
  // Its help has all operations of the interface: tests/docs compares them.
  const std::string help = run({"call", "--help"}).out;
  const std::regex operation(R"(\n  ([A-Z]\w+)([^\n]*))");
  const std::regex parameter(R"(\w+:(\w+))");
  std::size_t count = 0;
  for (std::sregex_iterator found(help.begin(), help.end(), operation), end; found != end; ++found, ++count) {
    const std::string name = (*found)[1];
    const std::string parameters = (*found)[2];
    Arguments arguments = {"call", "--yes", name};
    for (std::sregex_iterator one(parameters.begin(), parameters.end(), parameter); one != end; ++one) {
      arguments.push_back(values.at((*one)[1]));
    }
    journal().clear();
    const Outcome outcome = run(arguments);
    EXPECT_TRUE(outcome.exitCode == 0 || outcome.exitCode == 1) << name << ": " << outcome.err;
    EXPECT_TRUE(json::accept(outcome.out)) << name << ": " << outcome.out;
    EXPECT_FALSE(journal().logs().empty()) << name;
  }
  EXPECT_GT(count, 0U);
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
  EXPECT_THAT(run({"call", "GetDeviceLabel", "1"}), Ends(0, "{\"success\":true,\"text\":\"HOLIDAY\"}\n", ""));
  EXPECT_THAT(run({"call", "GetDeviceCapacity", "1"}), Ends(0, "15267\n", ""));
}

TEST_F(Call, EndsWithOneWhenTheReplyIsNo) {
  plugInStick();
  EXPECT_THAT(run({"call", "CheckForAndUpdateNewDevices"}), Ends(0, "null\n", ""));
  EXPECT_THAT(run({"call", "IsDeviceOpen", "-1"}), Ends(1, "false\n", ""));
  EXPECT_THAT(run({"call", "GetUsbPhysicalDevice", "9"}), Ends(1, "{\"success\":false,\"text\":\"\"}\n", ""));
}

TEST_F(Call, RefusesWrongArguments) {
  EXPECT_THAT(run({"call"}), Ends(2, "", HasSubstr("needs the name of an operation")));
  EXPECT_THAT(run({"call", "Format"}), Ends(2, "", HasSubstr("there is no operation \"Format\"")));
  EXPECT_THAT(run({"call", "OpenDeviceAt", "1"}),
              Ends(2, "", HasSubstr("OpenDeviceAt deviceId:i16 mountPoint:string isPvrDevice:bool")));
  for (const std::string number : {"32768", "x", "", "1x", "0x1"}) {
    EXPECT_THAT(run({"call", "OpenDevice", number}),
                Ends(2, "", HasSubstr("\"" + number + "\" is not an i16")))
        << number;
  }
  EXPECT_THAT(run({"call", "RegisterUsbAddedCallBack", "128", "0"}),
              Ends(2, "", HasSubstr("\"128\" is not an i8")));
  EXPECT_THAT(run({"call", "GetListOfInsertedDevices", "1"}),
              Ends(2, "", HasSubstr("\"1\" is not a bool (true, false)")));
}

TEST_F(Call, AsksBeforeItErasesADisk) {
  plugInStick();
  EXPECT_THAT(run({"call", "PrepareDeviceForPvr", "1"}),
              Ends(8, "", HasSubstr("device 1: nothing was done")));
  EXPECT_THAT(journal().logs(), Not(Contains(HasSubstr("PrepareDeviceForPvr"))));
}

}  // namespace
}  // namespace ctltest
