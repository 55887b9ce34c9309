// The command watch.

#include <sys/stat.h>
#include <thrift/TApplicationException.h>

#include <csignal>
#include <nlohmann/json.hpp>

#include "CtlTest.h"
#include "MediaService.h"

namespace ctltest {
namespace {

using nlohmann::json;
using testsupport::MediaService;

class Watching : public CtlTest {
 protected:
  Watching() { plugInStick(); }
  ~Watching() override {
    // The service keeps its connection to the ended watch; the first call over it fails.
    UsbClient connection;
    connection->RegisterUsbAddedCallBack(7, 0);
    EXPECT_THROW(connection->NotifyUsbXriteAdded(), apache::thrift::TApplicationException);
    connection->DeregisterUsbAddedCallBack(7, 0);
  }

  static bool socketExists() {
    struct stat status {};
    return stat(socketOf(9014).c_str(), &status) == 0;
  }
};

TEST_F(Watching, PrintsEventsAsTheyCome) {
  Program watch({"watch"});
  watch.readErrorUntil("Watching as observer 100; Ctrl-C ends it.\n");
  UsbClient connection;
  connection->NotifyUsbAdded("sda1");
  EXPECT_EQ(watch.readUntil("\n"), "added device 1\n");
  connection->NotifyUsbRemoved("sda1");
  EXPECT_EQ(watch.readUntil("removed device 1\n"), "added device 1\nremoved device 1\n");
  watch.send(SIGTERM);
  EXPECT_EQ(watch.wait().exitCode, 0);
}

TEST_F(Watching, PrintsEventsInJson) {
  Program watch({"watch", "--json", "--observer-id", "-3"});
  watch.readErrorUntil("Watching as observer -3;");
  UsbClient connection;
  connection->NotifyUsbAdded("sda1");
  const json event = json::parse(watch.readUntil("\n"));
  EXPECT_EQ(event.at("event"), "added");
  EXPECT_EQ(event.at("device"), 1);
  EXPECT_EQ(event.at("observerId"), -3);
  EXPECT_TRUE(event.at("observer").is_number_integer());
  watch.send(SIGINT);
  EXPECT_EQ(watch.wait().exitCode, 0);
}

TEST_F(Watching, ShowsXriteDevicesUnderTheirNumber) {
  Program watch({"watch", "--xrite"});
  watch.readErrorUntil("Watching as observer 7;");
  UsbClient connection;
  connection->NotifyUsbAdded("sda1");
  connection->NotifyUsbXriteAdded();
  connection->NotifyUsbXriteRemoved();
  EXPECT_EQ(watch.readUntil("removed Xrite device\n"), "added Xrite device\nremoved Xrite device\n");
  watch.send(SIGTERM);
  EXPECT_EQ(watch.wait().exitCode, 0);
  EXPECT_THAT(run({"watch", "--xrite", "--observer-id", "3"}), Ends(2, "", HasSubstr("--xrite")));
}

TEST_F(Watching, DeregistersAndFreesTheSocketAtItsEnd) {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    Program watch({"watch"});
    watch.readErrorUntil("Watching");
    EXPECT_TRUE(socketExists());
    journal().clear();
    watch.send(signal);
    EXPECT_EQ(watch.wait().exitCode, 0) << signal;
    EXPECT_FALSE(socketExists());
    EXPECT_THAT(journal().logs(), Contains(HasSubstr("Deregister USB ADDED callback for observerId 100 ")));
    EXPECT_THAT(journal().logs(), Contains(HasSubstr("Deregister USB REMOVED callback for observerId 100 ")));
  }
}

TEST_F(Watching, DeregistersWhenItsReaderHasGone) {
  Program watch({"watch"});
  watch.readErrorUntil("Watching");
  watch.stopReading();
  UsbClient connection;
  try {
    connection->NotifyUsbAdded("sda1");
  } catch (const apache::thrift::TApplicationException&) {
    // The program may end before its reply.
  }
  EXPECT_THAT(watch.wait(), Ends(9, "", HasSubstr("standard output cannot be written")));
  EXPECT_THAT(journal().logs(), Contains(HasSubstr("Deregister USB ADDED callback for observerId 100 ")));
}

TEST_F(Watching, HoldsNoConnectionToTheDaemon) {
  Program watch({"watch"});
  watch.readErrorUntil("Watching");
  std::vector<std::unique_ptr<UsbClient>> ten;
  for (int i = 0; i < 10; ++i) {
    ten.push_back(std::make_unique<UsbClient>());
    EXPECT_FALSE((*ten.back())->IsDeviceOpen(1));
  }
  ten.clear();
  watch.send(SIGTERM);
  EXPECT_EQ(watch.wait().exitCode, 0);
}

TEST_F(Watching, LeavesAMediaServiceInItsPlace) {
  const MediaService mediaService;
  EXPECT_THAT(run({"watch"}),
              Ends(7, "", AllOf(HasSubstr("a media service already serves"), HasSubstr(socketOf(9014)))));
}

TEST_F(Watching, EndsWhenThereIsNoDaemon) {
  const std::string directory = service().sockets.path() / "empty";
  EXPECT_THAT(run({"watch"}, {{{"RAVEL_SOCKET_DIR", directory}}}), Ends(4, "", HasSubstr("nobody serves")));
}

}  // namespace
}  // namespace ctltest
