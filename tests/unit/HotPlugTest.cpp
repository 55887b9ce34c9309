// Plug events and the observers that are called on them, through a real media service on socket 9014.

#include <thrift/TApplicationException.h>
#include <thrift/transport/TTransportException.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "HandlerTest.h"
#include "MediaService.h"
#include "SocketDirectory.h"

using testsupport::Callback;
using testsupport::MediaService;

namespace {

constexpr const char* onePartition = "major minor  #blocks  name\n\n   8        0      16384 sda1\n";

class HotPlug : public HandlerTest {
 protected:
  HotPlug() { startMediaService(); }

  void startMediaService() {
    mediaService.emplace();
    mediaService->onCallback([](const Callback& callback) {
      std::ostringstream event;
      event << "callback " << callback.event << " " << callback.usbDevice << " " << callback.observerId << " "
            << callback.observer;
      journal().record(event.str());
    });
  }

  /// True if the notification takes the lock once more after its callback. It must call one observer.
  bool waitsForTheLockAfterItsCallback(const std::function<void()>& notification) {
    std::promise<void> taken;
    std::atomic<bool> ended{false};
    std::future<bool> holder;
    mediaService->onCallback([&](const Callback&) {
      holder = std::async(std::launch::async, [&] {
        const Dockhand::HandlerLock lock(handler->handlerMutex);
        taken.set_value();
        // A notification that waits never ends within this time, even on a slow machine.
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        return !ended;
      });
      taken.get_future().wait();
    });
    notification();
    ended = true;
    return holder.get();
  }

  void listPartitions(const std::string& text) { platform.files["/proc/partitions"] = text; }
  static std::vector<std::string> callbacks() { return journal().eventsBeginning("callback "); }

  const SocketDirectory sockets;
  std::optional<MediaService> mediaService;
};

class UsbAdded : public HotPlug {
 protected:
  UsbAdded() { listPartitions(onePartition); }
};

using UsbRemoved = HotPlug;
using Xrite = HotPlug;

TEST_F(UsbAdded, CallsTheObserversAndMarksTheDeviceInThisOrder) {
  const auto id = plugIn({"sda", "sda1"});
  handler->RegisterUsbAddedCallBack(2, 0x1F);
  journal().clear();
  handler->NotifyUsbAdded("sda1");
  EXPECT_THAT(
      journal().events(),
      ElementsAre("log 2 @300 NotifyUSB added sda1", "stack trace", "log 2 @142 CheckForAndUpdateNewDevices",
                  "scandir /dev", "log 2 @196 entry: name=sda number= matchFound=1",
                  "log 2 @196 entry: name=sda1 number=1 matchFound=1", "open /proc/partitions",
                  "read /proc/partitions 1023", "close /proc/partitions",
                  "log 2 @364 Calling ADD callback function with usbDevice 1 and observerId is 2 and "
                  "observer is 0x1f",
                  "callback added 1 2 31"));
  EXPECT_EQ(entry(id).lastUsbOperation, Dockhand::UsbOperationAdded);
}

TEST_F(UsbAdded, FindsADeviceThatNoScanHasSeen) {
  platform.deviceNodes = {"usb_storage_sda1"};
  handler->RegisterUsbAddedCallBack(1, 0);
  handler->NotifyUsbAdded("sda1");
  EXPECT_THAT(callbacks(), ElementsAre("callback added 1 1 0"));
}

TEST_F(UsbAdded, WritesAnObserverInHexadecimalAsItsBitPattern) {
  plugIn({"sda1"});
  handler->RegisterUsbAddedCallBack(-128, -1);
  journal().clear();
  handler->NotifyUsbAdded("sda1");
  EXPECT_THAT(
      journal().eventsBeginning("log 2 @364"),
      ElementsAre("log 2 @364 Calling ADD callback function with usbDevice 1 and observerId is -128 and "
                  "observer is 0xffffffff"));
  EXPECT_THAT(callbacks(), ElementsAre("callback added 1 -128 -1"));
}

TEST_F(UsbAdded, CallsObserversInSignedOrderAndSkipsTheXriteConsumer) {
  plugIn({"sda1"});
  for (const std::int8_t observerId : std::vector<std::int8_t>{127, 7, 0, -1, -128, 8}) {
    handler->RegisterUsbAddedCallBack(observerId, observerId);
  }
  handler->NotifyUsbAdded("sda1");
  EXPECT_THAT(callbacks(),
              ElementsAre("callback added 1 -128 -128", "callback added 1 -1 -1", "callback added 1 0 0",
                          "callback added 1 8 8", "callback added 1 127 127"));
}

TEST_F(UsbAdded, DoesNotCallTheObserversOfRemovedDevices) {
  plugIn({"sda1"});
  handler->RegisterUsbRemovedCallBack(1, 0);
  handler->NotifyUsbAdded("sda1");
  EXPECT_THAT(callbacks(), IsEmpty());
}

TEST_F(UsbAdded, DumpsNoStackAboveThresholdOne) {
  plugIn({"sda1"});
  setThreshold(2);
  handler->NotifyUsbAdded("sda1");
  EXPECT_THAT(journal().eventsBeginning("stack trace"), IsEmpty());
}

TEST_F(UsbAdded, DumpsNoStackWithoutAContext) {
  plugIn({"sda1"});
  Dockhand::usbClientLog.context = nullptr;
  handler->NotifyUsbAdded("sda1");
  EXPECT_THAT(journal().eventsBeginning("stack trace"), IsEmpty());
  EXPECT_THAT(journal().eventsBeginning("log 2 @300"), ElementsAre("log 2 @300 NotifyUSB added sda1"));
}

TEST_F(UsbAdded, EndsASafeRemoval) {
  const auto id = plugIn({"sda1"});
  entry(id).safelyRemoved = true;
  handler->NotifyUsbAdded("sda1");
  EXPECT_FALSE(entry(id).safelyRemoved);
}

TEST_F(UsbAdded, IgnoresARepeatAndKeepsASafeRemoval) {
  const auto id = plugIn({"sda1"});
  handler->RegisterUsbAddedCallBack(1, 0);
  handler->NotifyUsbAdded("sda1");
  entry(id).safelyRemoved = true;
  journal().clear();
  handler->NotifyUsbAdded("sda1");
  EXPECT_TRUE(entry(id).safelyRemoved);
  EXPECT_THAT(
      journal().events(),
      ElementsAre("log 2 @300 NotifyUSB added sda1", "stack trace", "log 2 @142 CheckForAndUpdateNewDevices",
                  "scandir /dev", "log 2 @196 entry: name=sda1 number=1 matchFound=1",
                  "open /proc/partitions", "read /proc/partitions 1023", "close /proc/partitions"));
}

TEST_F(UsbAdded, AnnouncesADeviceAgainAfterItsRemoval) {
  plugIn({"sda1"});
  handler->RegisterUsbAddedCallBack(1, 0);
  handler->NotifyUsbAdded("sda1");
  handler->NotifyUsbRemoved("sda1");
  handler->NotifyUsbAdded("sda1");
  EXPECT_THAT(callbacks(), ElementsAre("callback added 1 1 0", "callback added 1 1 0"));
}

TEST_F(UsbAdded, MatchesAPartitionedDeviceByItsPartitionOnly) {
  const auto id = plugIn({"sda", "sda1"});
  listPartitions("sda");
  handler->NotifyUsbAdded("sda");
  EXPECT_EQ(entry(id).lastUsbOperation, Dockhand::UsbOperationNone);
}

TEST_F(UsbAdded, IgnoresAWholeDiskWhosePartitionIsListedToo) {
  const auto id = plugIn({"sdc"});
  handler->RegisterUsbAddedCallBack(1, 0);
  listPartitions("   8       32   16384 sdc\n   8       33   16383 sdc1\n");
  handler->NotifyUsbAdded("sdc");
  EXPECT_THAT(callbacks(), IsEmpty());
  EXPECT_EQ(entry(id).lastUsbOperation, Dockhand::UsbOperationNone);
}

TEST_F(UsbAdded, CountsOccurrencesWithoutOverlap) {
  const auto id = plugIn({"aa"});
  listPartitions("aaa");
  handler->NotifyUsbAdded("aa");
  EXPECT_EQ(entry(id).lastUsbOperation, Dockhand::UsbOperationAdded);
}

TEST_F(UsbAdded, IgnoresADeviceThatIsNotListed) {
  const auto id = plugIn({"sda1"});
  listPartitions("   8       16   16384 sdb1\n");
  handler->NotifyUsbAdded("sda1");
  EXPECT_EQ(entry(id).lastUsbOperation, Dockhand::UsbOperationNone);
}

TEST_F(UsbAdded, ReadsOnlyTheFirst1023BytesOfTheList) {
  const auto id = plugIn({"sda1"});
  listPartitions(std::string(1020, ' ') + "sda1");
  handler->NotifyUsbAdded("sda1");
  EXPECT_EQ(entry(id).lastUsbOperation, Dockhand::UsbOperationNone);
  listPartitions(std::string(1019, ' ') + "sda1");
  handler->NotifyUsbAdded("sda1");
  EXPECT_EQ(entry(id).lastUsbOperation, Dockhand::UsbOperationAdded);
}

TEST_F(UsbAdded, DoesNothingWithoutAListOfPartitions) {
  const auto id = plugIn({"sda1"});
  handler->RegisterUsbAddedCallBack(1, 0);
  platform.files.clear();
  handler->NotifyUsbAdded("sda1");
  EXPECT_THAT(callbacks(), IsEmpty());
  EXPECT_EQ(entry(id).lastUsbOperation, Dockhand::UsbOperationNone);
  EXPECT_FALSE(lockIsHeld());
}

TEST_F(UsbAdded, DoesNothingWhenTheListCannotBeRead) {
  const auto id = plugIn({"sda1"});
  platform.readErrors["/proc/partitions"] = EIO;
  handler->NotifyUsbAdded("sda1");
  EXPECT_EQ(entry(id).lastUsbOperation, Dockhand::UsbOperationNone);
  EXPECT_EQ(platform.openDescriptors(), 0U);
}

TEST_F(UsbAdded, ReadsAListThatIsOpenedAsDescriptorZero) {
  const auto id = plugIn({"sda1"});
  platform.nextDescriptor = 0;
  handler->NotifyUsbAdded("sda1");
  EXPECT_EQ(entry(id).lastUsbOperation, Dockhand::UsbOperationAdded);
  EXPECT_EQ(platform.openDescriptors(), 0U);
}

TEST_F(UsbAdded, AnnouncesNoDeviceWithoutAName) {
  platform.deviceNodes = {"usb_storage_"};
  handler->RegisterUsbAddedCallBack(1, 0);
  handler->NotifyUsbAdded("");
  EXPECT_EQ(handler->deviceMap.size(), 1U);
  EXPECT_THAT(callbacks(), IsEmpty());
}

TEST_F(UsbAdded, CallsNobodyForAnUnknownDevice) {
  handler->RegisterUsbAddedCallBack(1, 0);
  handler->NotifyUsbAdded("sda1");
  EXPECT_THAT(callbacks(), IsEmpty());
}

TEST_F(UsbAdded, RescansButCallsNobodyForOddNames) {
  platform.deviceNodes = {"usb_storage_1x"};
  handler->RegisterUsbAddedCallBack(1, 0);
  for (const std::string& name : {std::string(), std::string(65536, 's'), std::string("sd\0a1", 5)}) {
    journal().clear();
    handler->NotifyUsbAdded(name);
    EXPECT_THAT(journal().eventsBeginning("scandir"), ElementsAre("scandir /dev"));
    EXPECT_THAT(callbacks(), IsEmpty());
  }
}

TEST_F(UsbAdded, LeavesARecordWithTheNumberZeroAlone) {
  plugIn({"sda1"});
  handler->deviceMap[0] = entry(1);
  handler->deviceMap.erase(1);
  handler->RegisterUsbAddedCallBack(1, 0);
  handler->NotifyUsbAdded("sda1");
  EXPECT_EQ(entry(0).lastUsbOperation, Dockhand::UsbOperationNone);
  EXPECT_THAT(journal().eventsBeginning("close"), ElementsAre("close /proc/partitions"));
  EXPECT_THAT(callbacks(), IsEmpty());
}

TEST_F(UsbAdded, LogsANumberThatItsObserversGetOnly16BitsOf) {
  plugIn({"sda1"});
  handler->deviceMap[65538] = entry(1);
  handler->deviceMap.erase(1);
  handler->RegisterUsbAddedCallBack(1, 0);
  handler->NotifyUsbAdded("sda1");
  EXPECT_THAT(
      journal().eventsBeginning("log 2 @364"),
      ElementsAre("log 2 @364 Calling ADD callback function with usbDevice 65538 and observerId is 1 and "
                  "observer is 0x0"));
  EXPECT_THAT(callbacks(), ElementsAre("callback added 2 1 0"));
}

TEST_F(UsbAdded, WritesItsFirstLineOnlyDuringAPreparation) {
  const auto id = plugIn({"sda1"});
  handler->pvrPreparationRunning = true;
  handler->NotifyUsbAdded("sda1");
  EXPECT_THAT(journal().events(), ElementsAre("log 2 @300 NotifyUSB added sda1"));
  EXPECT_EQ(entry(id).lastUsbOperation, Dockhand::UsbOperationNone);
}

TEST_F(UsbAdded, HoldsTheLockForItsScanAndNotForItsCallbacks) {
  plugIn({"sda1"});
  handler->RegisterUsbAddedCallBack(1, 0);
  bool heldInScan = false;
  bool heldInCallback = true;
  platform.onCall = [&](const std::string&) { heldInScan = lockIsHeld(); };
  mediaService->onCallback([&](const Callback&) { heldInCallback = lockIsHeld(); });
  handler->NotifyUsbAdded("sda1");
  EXPECT_TRUE(heldInScan);
  EXPECT_FALSE(heldInCallback);
  EXPECT_FALSE(lockIsHeld());
}

TEST_F(UsbAdded, LetsAnObserverCauseAnotherNotification) {
  plugIn({"sda1"});
  handler->RegisterUsbAddedCallBack(1, 0);
  handler->RegisterUsbAddedCallBack(7, 0);
  std::vector<std::int16_t> listed;
  mediaService->onCallback([&](const Callback& callback) {
    journal().record("callback for " + std::to_string(callback.observerId));
    if (callback.observerId == 1) {
      handler->GetListOfInsertedDevices(listed, false);
      handler->RegisterUsbAddedCallBack(3, 0);
      handler->NotifyUsbXriteAdded();
    }
  });
  handler->NotifyUsbAdded("sda1");
  EXPECT_THAT(listed, ElementsAre(1));
  // Observer 3 registered too late for this notification.
  EXPECT_THAT(callbacks(), ElementsAre("callback for 1", "callback for 7"));
}

TEST_F(UsbAdded, WaitsForTheLockOnceMoreAfterItsCallbacks) {
  plugIn({"sda1"});
  handler->RegisterUsbAddedCallBack(1, 0);
  EXPECT_TRUE(waitsForTheLockAfterItsCallback([this] { handler->NotifyUsbAdded("sda1"); }));
}

TEST_F(UsbAdded, FailsToItsCallerButKeepsTheStateWithoutAMediaService) {
  const auto id = plugIn({"sda1"});
  handler->RegisterUsbAddedCallBack(1, 0);
  handler->RegisterUsbAddedCallBack(2, 0);
  mediaService.reset();
  journal().clear();
  EXPECT_THROW(handler->NotifyUsbAdded("sda1"), apache::thrift::transport::TTransportException);
  EXPECT_EQ(entry(id).lastUsbOperation, Dockhand::UsbOperationAdded);
  EXPECT_FALSE(lockIsHeld());
  EXPECT_EQ(journal().eventsBeginning("log 2 @364").size(), 1U);
}

TEST_F(UsbAdded, DoesNotNeedTheMediaServiceWithoutObservers) {
  const auto id = plugIn({"sda1"});
  mediaService.reset();
  handler->NotifyUsbAdded("sda1");
  EXPECT_EQ(entry(id).lastUsbOperation, Dockhand::UsbOperationAdded);
}

TEST_F(UsbAdded, SkipsTheObserversAfterOneThatFails) {
  plugIn({"sda1"});
  handler->RegisterUsbAddedCallBack(1, 0);
  handler->RegisterUsbAddedCallBack(2, 0);
  int called = 0;
  mediaService->onCallback([&](const Callback&) {
    ++called;
    throw std::runtime_error("no");
  });
  EXPECT_THROW(handler->NotifyUsbAdded("sda1"), apache::thrift::TApplicationException);
  EXPECT_EQ(called, 1);
}

TEST_F(UsbAdded, ReachesAMediaServiceThatWasRestarted) {
  plugIn({"sda1"});
  handler->RegisterUsbAddedCallBack(1, 0);
  handler->RegisterUsbAddedCallBack(7, 0);
  handler->NotifyUsbAdded("sda1");
  mediaService.reset();
  EXPECT_THROW(handler->NotifyUsbXriteAdded(), apache::thrift::TException);
  startMediaService();
  journal().clear();
  handler->NotifyUsbXriteAdded();
  EXPECT_THAT(callbacks(), ElementsAre("callback added -1 7 0"));
}

TEST_F(UsbRemoved, ReleasesErasesAndCallsInThisOrder) {
  plugIn({"sda"});
  const auto id = plugIn({"sdb", "sdb1"});
  entry(id).deviceOpen = true;
  entry(id).mountPoint = "/media/disk_2";
  platform.files["/proc/mounts"] = "/dev/usb_storage_sdb1 /media/disk_2 vfat rw 0 0\n";
  platform.existing = {"/media/disk_2"};
  handler->RegisterUsbRemovedCallBack(4, 0xAB);
  journal().clear();
  handler->NotifyUsbRemoved("sdb1");
  EXPECT_THAT(
      journal().events(),
      ElementsAre("log 2 @384 NotifyUsbRemoved(sdb1)", "log 2 @397 NotifyUsbRemoved: check device=sda",
                  "log 2 @397 NotifyUsbRemoved: check device=sdb1",
                  "log 4 @416 NotifyUsbRemoved: Device was mounted, force unmount(sdb, /media/disk_2)",
                  "log 2 @506 CheckForAndRemoveMount: /media/disk_2 ", "open /proc/mounts",
                  "read /proc/mounts 1024", "log 2 @521 Performing unmount for /media/disk_2",
                  "umount2 /media/disk_2 2", "close /proc/mounts", "access /media/disk_2",
                  "log 2 @541 Performing rmdir for /media/disk_2", "rmdir /media/disk_2",
                  "log 2 @424 deviceMap.erase: deviceId=2",
                  "log 2 @436 SendUsbRemovedCallback: usbDevice=2 and observerId=4 and observer=0xab",
                  "callback removed 2 4 171"));
  EXPECT_EQ(handler->deviceMap.count(2), 0U);
}

TEST_F(UsbRemoved, ForgetsADeviceThatWasNotOpenWithoutUnmountingAnything) {
  plugIn({"sda"});
  handler->NotifyUsbRemoved("sda");
  EXPECT_THAT(journal().events(),
              ElementsAre("log 2 @384 NotifyUsbRemoved(sda)", "log 2 @397 NotifyUsbRemoved: check device=sda",
                          "log 2 @424 deviceMap.erase: deviceId=1"));
  EXPECT_THAT(handler->deviceMap, IsEmpty());
}

TEST_F(UsbRemoved, ForgetsADeviceThatCannotBeUnmounted) {
  const auto id = plugIn({"sda"});
  entry(id).deviceOpen = true;
  entry(id).mountPoint = "/media/disk_1";
  platform.files["/proc/mounts"] = "x /media/disk_1 vfat rw 0 0\n";
  platform.umount2Error = EBUSY;
  handler->NotifyUsbRemoved("sda");
  EXPECT_THAT(handler->deviceMap, IsEmpty());
  EXPECT_THAT(journal().eventsBeginning("log 4 @528"),
              ElementsAre("log 4 @528 umount2(/media/disk_1) failed, errno=16=Device or resource busy"));
}

TEST_F(UsbRemoved, DoesNothingForAnUnknownDevice) {
  plugIn({"sda"});
  handler->RegisterUsbRemovedCallBack(1, 0);
  journal().clear();
  handler->NotifyUsbRemoved("sdb");
  EXPECT_THAT(journal().events(), ElementsAre("log 2 @384 NotifyUsbRemoved(sdb)",
                                              "log 2 @397 NotifyUsbRemoved: check device=sda"));
  EXPECT_EQ(handler->deviceMap.size(), 1U);
}

TEST_F(UsbRemoved, DoesNothingForOddNames) {
  plugIn({"sda"});
  for (const std::string& name : {std::string(), std::string(65536, 's'), std::string("sda\0", 4)}) {
    handler->NotifyUsbRemoved(name);
    EXPECT_EQ(handler->deviceMap.size(), 1U);
  }
}

TEST_F(UsbRemoved, MatchesAPartitionedDeviceByItsPartitionOnly) {
  plugIn({"sda", "sda1"});
  handler->NotifyUsbRemoved("sda");
  EXPECT_EQ(handler->deviceMap.size(), 1U);
}

TEST_F(UsbRemoved, LogsThatTheRemovalIsAlreadyKnown) {
  const auto id = plugIn({"sda"});
  entry(id).lastUsbOperation = Dockhand::UsbOperationRemoved;
  handler->RegisterUsbRemovedCallBack(1, 0);
  journal().clear();
  handler->NotifyUsbRemoved("sda");
  EXPECT_THAT(journal().events(),
              ElementsAre("log 2 @384 NotifyUsbRemoved(sda)", "log 2 @397 NotifyUsbRemoved: check device=sda",
                          "log 2 @408 Already notified about removal"));
  EXPECT_EQ(handler->deviceMap.size(), 1U);
}

TEST_F(UsbRemoved, LeavesARecordWithTheNumberZeroAlone) {
  plugIn({"sda"});
  handler->deviceMap[0] = handler->deviceMap[1];
  handler->deviceMap.erase(1);
  journal().clear();
  handler->NotifyUsbRemoved("sda");
  EXPECT_EQ(handler->deviceMap.count(0), 1U);
  EXPECT_EQ(entry(0).lastUsbOperation, Dockhand::UsbOperationNone);
}

TEST_F(UsbRemoved, LogsANumberThatItsObserversGetOnly16BitsOf) {
  plugIn({"sda1"});
  handler->deviceMap[65538] = entry(1);
  handler->deviceMap.erase(1);
  handler->RegisterUsbRemovedCallBack(1, 0);
  handler->NotifyUsbRemoved("sda1");
  EXPECT_THAT(
      journal().eventsBeginning("log 2 @4"),
      ElementsAre("log 2 @424 deviceMap.erase: deviceId=65538",
                  "log 2 @436 SendUsbRemovedCallback: usbDevice=65538 and observerId=1 and observer=0x0"));
  EXPECT_THAT(callbacks(), ElementsAre("callback removed 2 1 0"));
}

TEST_F(UsbRemoved, WritesItsFirstLineOnlyDuringAPreparation) {
  plugIn({"sda"});
  handler->pvrPreparationRunning = true;
  handler->NotifyUsbRemoved("sda");
  EXPECT_THAT(journal().events(), ElementsAre("log 2 @384 NotifyUsbRemoved(sda)"));
  EXPECT_EQ(handler->deviceMap.size(), 1U);
}

TEST_F(UsbRemoved, CallsObserversInSignedOrderAndSkipsTheXriteConsumer) {
  plugIn({"sda"});
  for (const std::int8_t observerId : std::vector<std::int8_t>{1, 7, -5}) {
    handler->RegisterUsbRemovedCallBack(observerId, 0);
  }
  handler->RegisterUsbAddedCallBack(2, 0);
  handler->NotifyUsbRemoved("sda");
  EXPECT_THAT(callbacks(), ElementsAre("callback removed 1 -5 0", "callback removed 1 1 0"));
}

TEST_F(UsbRemoved, HoldsTheLockForTheUnmountAndNotForItsCallbacks) {
  const auto id = plugIn({"sda"});
  entry(id).deviceOpen = true;
  entry(id).mountPoint = "/media/disk_1";
  handler->RegisterUsbRemovedCallBack(1, 0);
  bool heldInUnmount = false;
  bool heldInCallback = true;
  platform.onCall = [&](const std::string&) { heldInUnmount = lockIsHeld(); };
  mediaService->onCallback([&](const Callback&) { heldInCallback = lockIsHeld(); });
  handler->NotifyUsbRemoved("sda");
  EXPECT_TRUE(heldInUnmount);
  EXPECT_FALSE(heldInCallback);
}

TEST_F(UsbRemoved, WaitsForTheLockOnceMoreAfterItsCallbacks) {
  plugIn({"sda"});
  handler->RegisterUsbRemovedCallBack(1, 0);
  EXPECT_TRUE(waitsForTheLockAfterItsCallback([this] { handler->NotifyUsbRemoved("sda"); }));
}

TEST_F(UsbRemoved, ForgetsTheDeviceEvenWithoutAMediaService) {
  plugIn({"sda"});
  handler->RegisterUsbRemovedCallBack(1, 0);
  mediaService.reset();
  EXPECT_THROW(handler->NotifyUsbRemoved("sda"), apache::thrift::transport::TTransportException);
  EXPECT_THAT(handler->deviceMap, IsEmpty());
}

TEST_F(Xrite, NotificationsCallTheXriteConsumerAloneWithMinusOne) {
  for (const std::int8_t observerId : std::vector<std::int8_t>{2, 7, 9}) {
    handler->RegisterUsbAddedCallBack(observerId, 0x10);
    handler->RegisterUsbRemovedCallBack(observerId, 0x20);
  }
  journal().clear();
  handler->NotifyUsbXriteAdded();
  handler->NotifyUsbXriteRemoved();
  EXPECT_THAT(
      journal().events(),
      ElementsAre("log 2 @452 Xrite device inserted",
                  "log 2 @462 Calling ADDED callback function with usbDevice -1 and observerId is 7 and "
                  "observer is 0x10",
                  "callback added -1 7 16", "log 2 @478 Xrite device removed",
                  "log 2 @488 Calling REMOVE callback function with usbDevice -1 and observerId is 7 and "
                  "observer is 0x20",
                  "callback removed -1 7 32"));
}

TEST_F(Xrite, NotificationsRunDuringAPreparation) {
  handler->RegisterUsbAddedCallBack(7, 0);
  handler->RegisterUsbRemovedCallBack(7, 0);
  handler->pvrPreparationRunning = true;
  handler->NotifyUsbXriteAdded();
  handler->NotifyUsbXriteRemoved();
  EXPECT_THAT(callbacks(), ElementsAre("callback added -1 7 0", "callback removed -1 7 0"));
}

TEST_F(Xrite, NotificationsFailToTheirCallerWithoutAMediaService) {
  handler->RegisterUsbAddedCallBack(7, 0);
  handler->RegisterUsbRemovedCallBack(7, 0);
  mediaService.reset();
  EXPECT_THROW(handler->NotifyUsbXriteAdded(), apache::thrift::transport::TTransportException);
  EXPECT_THROW(handler->NotifyUsbXriteRemoved(), apache::thrift::transport::TTransportException);
  EXPECT_FALSE(lockIsHeld());
}

TEST_F(Xrite, NotificationsHoldNoLockWhileTheyCall) {
  handler->RegisterUsbAddedCallBack(7, 0);
  handler->RegisterUsbRemovedCallBack(7, 0);
  std::vector<bool> held;
  mediaService->onCallback([&](const Callback&) { held.push_back(lockIsHeld()); });
  handler->NotifyUsbXriteAdded();
  handler->NotifyUsbXriteRemoved();
  EXPECT_THAT(held, ElementsAre(false, false));
}

TEST_F(Xrite, NotificationsWaitForTheLockBeforeTheyCall) {
  handler->RegisterUsbAddedCallBack(7, 0);
  handler->RegisterUsbRemovedCallBack(7, 0);
  for (const std::function<void()>& notification : std::vector<std::function<void()>>{
           [this] { handler->NotifyUsbXriteAdded(); }, [this] { handler->NotifyUsbXriteRemoved(); }}) {
    journal().clear();
    std::future<void> run;
    {
      const Dockhand::HandlerLock lock(handler->handlerMutex);
      run = std::async(std::launch::async, notification);
      EXPECT_EQ(run.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
      EXPECT_THAT(callbacks(), IsEmpty());
    }
    run.get();
    EXPECT_THAT(callbacks(), SizeIs(1));
  }
}

TEST_F(Xrite, NotificationsWaitForTheLockOnceMoreAfterTheirCallbacks) {
  handler->RegisterUsbAddedCallBack(7, 0);
  handler->RegisterUsbRemovedCallBack(7, 0);
  EXPECT_TRUE(waitsForTheLockAfterItsCallback([this] { handler->NotifyUsbXriteAdded(); }));
  EXPECT_TRUE(waitsForTheLockAfterItsCallback([this] { handler->NotifyUsbXriteRemoved(); }));
}

}  // namespace
