// The commands that change something.

#include <thrift/TApplicationException.h>

#include "CtlTest.h"
#include "MediaService.h"

namespace ctltest {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using testsupport::Callback;
using testsupport::MediaService;

class Commands : public CtlTest {
 protected:
  static void expectLogged(const std::string& line) {
    EXPECT_THAT(journal().logs(), Contains(HasSubstr(line)));
  }

  /// The service keeps its connection to a media service that is gone, and the first call through it fails.
  static void dropConnectionToMediaService() {
    Connection connection;
    connection->RegisterUsbAddedCallBack(7, 0);
    EXPECT_THROW(connection->NotifyUsbXriteAdded(), apache::thrift::TApplicationException);
    connection->DeregisterUsbAddedCallBack(7, 0);
  }
};

TEST_F(Commands, OpenMountsAtTheUsualDirectory) {
  plugInStick();
  EXPECT_THAT(run({"open", "1"}), Ends(0, "device 1 is open at /media/disk_1\n", ""));
  expectLogged("OpenDeviceAt(1, /media/disk_1, isPvrDevice=0)");
}

TEST_F(Commands, OpenMountsWhereItIsTold) {
  plugInStick();
  EXPECT_THAT(run({"open", "1", "--at", "/media/my disk"}),
              Ends(0, "device 1 is open at /media/my disk\n", ""));
  expectLogged("OpenDeviceAt(1, /media/my disk, isPvrDevice=0)");
  run({"open", "1", "--at", "/media/pvr", "--pvr"});
  expectLogged("OpenDeviceAt(1, /media/pvr, isPvrDevice=1)");
  EXPECT_THAT(run({"open", "1", "--at", "media"}), Ends(2, "", HasSubstr("absolute")));
}

TEST_F(Commands, OpenTellsWhyNot) {
  EXPECT_THAT(run({"open", "1"}), Ends(3, "", HasSubstr("device 1: no such device; there is none")));
  plugInStick();
  platform().mountError = [](const FakePlatform::Mount&) { return ENODEV; };
  EXPECT_THAT(run({"open", "1"}),
              Ends(1, "", HasSubstr("device 1: not opened: its file system cannot be mounted")));
  platform().mountError = [](const FakePlatform::Mount&) { return 0; };
  run({"open", "1"});
  run({"close", "1", "--safe"});
  EXPECT_THAT(run({"open", "1"}),
              Ends(1, "", HasSubstr("device 1: not opened: it was closed for safe removal")));
}

TEST_F(Commands, CloseUnmounts) {
  plugInStick();
  run({"open", "1"});
  EXPECT_THAT(run({"close", "1"}), Ends(0, "device 1 is closed\n", ""));
  EXPECT_THAT(run({"list"}), Ends(0, "1\n", ""));
  run({"open", "1"});
  EXPECT_THAT(run({"close", "1", "--safe"}), Ends(0, "device 1 may be pulled out\n", ""));
  EXPECT_THAT(run({"list"}), Ends(0, "", ""));
}

TEST_F(Commands, CloseTellsWhyNot) {
  EXPECT_THAT(run({"close", "1"}), Ends(3, "", HasSubstr("device 1: no such device")));
  plugInStick();
  EXPECT_THAT(run({"close", "1"}), Ends(1, "", "dockhandctl: device 1: not closed: it is not open\n"));
  run({"open", "1"});
  platform().files["/proc/mounts"] = "/dev/usb_storage_sda1 /media/disk_1 vfat rw 0 0\n";
  platform().umount2Error = EBUSY;
  EXPECT_THAT(run({"close", "1"}),
              Ends(1, "", HasSubstr("device 1: not closed: /media/disk_1 cannot be unmounted")));
}

TEST_F(Commands, RescanFindsNewDevices) {
  platform().deviceNodes = {"usb_storage_sda1"};
  EXPECT_THAT(run({"rescan"}), Ends(0, "", ""));
  ravel::rpc::ReturnValueWithString name;
  Connection connection;
  connection->GetUsbPhysicalDevice(name, 1);
  EXPECT_EQ(name.text, "sda1");
}

TEST_F(Commands, NotifyAnnouncesPlugEvents) {
  plugInStick();
  EXPECT_THAT(run({"notify", "added", "sda1"}), Ends(0, "", ""));
  expectLogged("NotifyUSB added sda1");
  EXPECT_THAT(run({"notify", "removed", "sda1"}), Ends(0, "", ""));
  expectLogged("NotifyUsbRemoved(sda1)");
  EXPECT_THAT(run({"notify", "xrite-added"}), Ends(0, "", ""));
  expectLogged("Xrite device inserted");
  EXPECT_THAT(run({"notify", "xrite-removed"}), Ends(0, "", ""));
  expectLogged("Xrite device removed");
}

TEST_F(Commands, NotifyTakesANameWhereThereIsOne) {
  EXPECT_THAT(run({"notify", "added"}), Ends(2, "", HasSubstr("takes the kernel NAME")));
  EXPECT_THAT(run({"notify", "xrite-added", "sda1"}), Ends(2, "", HasSubstr("takes no NAME")));
  EXPECT_THAT(run({"notify", "lost", "sda1"}), Ends(2, "", HasSubstr("lost")));
}

TEST_F(Commands, NotifyReportsObserversThatCannotBeTold) {
  plugInStick();
  run({"observer", "add", "added", "3", "42"});
  EXPECT_THAT(run({"notify", "added", "sda1"}),
              Ends(5, "", HasSubstr("added sda1: not all observers were told")));
  run({"observer", "remove", "added", "3"});
}

TEST_F(Commands, ObserverRegistersAndDeregisters) {
  {
    const MediaService mediaService;
    EXPECT_THAT(run({"observer", "add", "added", "7", "-2"}), Ends(0, "", ""));
    EXPECT_THAT(run({"observer", "add", "removed", "7"}), Ends(0, "", ""));
    run({"notify", "xrite-added"});
    run({"notify", "xrite-removed"});
    EXPECT_THAT(run({"observer", "remove", "added", "7"}), Ends(0, "", ""));
    EXPECT_THAT(run({"observer", "remove", "removed", "7", "5"}), Ends(0, "", ""));
    run({"notify", "xrite-added"});
    run({"notify", "xrite-removed"});
    EXPECT_THAT(mediaService.callbacks(),
                ElementsAre(Callback{"added", -1, 7, -2}, Callback{"removed", -1, 7, 0}));
  }
  dropConnectionToMediaService();
}

TEST_F(Commands, ObserverTakesNumbersOfEightBits) {
  EXPECT_THAT(run({"observer", "add", "added", "-128"}), Ends(0, "", ""));
  expectLogged("observerId -128 ");
  EXPECT_THAT(run({"observer", "remove", "added", "-128"}), Ends(0, "", ""));
  EXPECT_THAT(run({"observer", "add", "added", "128"}), Ends(2, "", Not(IsEmpty())));
  EXPECT_THAT(run({"observer", "drop", "added", "1"}), Ends(2, "", HasSubstr("drop")));
}

}  // namespace
}  // namespace ctltest
