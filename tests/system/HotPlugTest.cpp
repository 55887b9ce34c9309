// Plugging in and pulling out, and the callbacks to observers.

#include <thrift/TApplicationException.h>

#include <fstream>
#include <memory>
#include <stdexcept>

#include "MediaService.h"
#include "SystemTest.h"

namespace systest {
namespace {

using apache::thrift::TApplicationException;
using testsupport::Callback;
using testsupport::MediaService;

class HotPlugTest : public SystemTest {};

StickOptions songStick(bool partitioned) {
  StickOptions options;
  options.files = {{"song.mp3", "la la la"}};
  options.partitioned = partitioned;
  return options;
}

/// A stick that the kernel lists under these names, with a media service for its callbacks.
struct Announced {
  Stick stick;
  MediaService media;
  Daemon daemon;
  UsbClient client;
};

Announced announce(const std::vector<std::string>& listed = {"sda"}, bool partitioned = false) {
  setPartitions(listed);
  return {Stick(songStick(partitioned)), MediaService(), Daemon(), UsbClient()};
}

TEST_F(HotPlugTest, ObserversAreCalledInSignedOrderWithoutTheXriteObserver) {
  auto [stick, media, daemon, client] = announce();
  for (const std::int8_t observerId : {std::int8_t{127}, std::int8_t{7}, std::int8_t{0}, std::int8_t{-3}}) {
    client->RegisterUsbAddedCallBack(observerId, 1000 + observerId);
    client->RegisterUsbRemovedCallBack(observerId, 2000 + observerId);
  }
  client->NotifyUsbAdded("sda");
  EXPECT_THAT(media.takeCallbacks(), ElementsAre(Callback{"added", 1, -3, 997}, Callback{"added", 1, 0, 1000},
                                                 Callback{"added", 1, 127, 1127}));
  client->NotifyUsbRemoved("sda");
  EXPECT_THAT(media.takeCallbacks(),
              ElementsAre(Callback{"removed", 1, -3, 1997}, Callback{"removed", 1, 0, 2000},
                          Callback{"removed", 1, 127, 2127}));
}

/// Notifications in order, and the one that announces the stick; empty: none.
struct Notice {
  using IsRow = void;
  std::string name;
  bool partitioned;
  std::vector<std::string> listed;
  std::vector<std::string> notified;
  std::string announcing;
};

class NoticeTest : public SystemTest, public testing::WithParamInterface<Notice> {};

TEST_P(NoticeTest, AnnouncesTheStickOnceAtMost) {
  auto [stick, media, daemon, client] = announce(GetParam().listed, GetParam().partitioned);
  client->RegisterUsbAddedCallBack(1, 42);
  std::vector<Callback> expected;
  for (const std::string& kernelName : GetParam().notified) {
    client->NotifyUsbAdded(kernelName);
    if (kernelName == GetParam().announcing) {
      expected = {{"added", 1, 1, 42}};
    }
    EXPECT_EQ(media.callbacks(), expected) << kernelName;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Of, NoticeTest,
    testing::Values(Notice{"TheSameDeviceTwice", false, {"sda"}, {"sda", "sda"}, "sda"},
                    Notice{
                        "APartitionedStickAndItsPartition", true, {"sda", "sda1"}, {"sda", "sda1"}, "sda1"},
                    Notice{"ADiskWhosePartitionHasNoNodeYet", false, {"sda", "sda1"}, {"sda"}, ""},
                    Notice{"ADeviceThatTheKernelDoesNotList", false, {"sdb"}, {"sda"}, ""}),
    nameOf<Notice>);

TEST_F(HotPlugTest, DeregisteredObserverIsNotCalled) {
  auto [stick, media, daemon, client] = announce();
  client->RegisterUsbAddedCallBack(1, 41);
  client->RegisterUsbAddedCallBack(2, 42);
  client->RegisterUsbRemovedCallBack(1, 43);
  client->DeregisterUsbAddedCallBack(1, 41);
  client->DeregisterUsbRemovedCallBack(1, 43);
  client->NotifyUsbAdded("sda");
  client->NotifyUsbRemoved("sda");
  EXPECT_THAT(media.callbacks(), ElementsAre(Callback{"added", 1, 2, 42}));
}

TEST_F(HotPlugTest, XriteDeviceIsAnnouncedToItsObserverOnly) {
  const MediaService media;
  const Daemon daemon;
  UsbClient client;
  for (const std::int8_t observerId : {std::int8_t{6}, std::int8_t{7}, std::int8_t{8}}) {
    client->RegisterUsbAddedCallBack(observerId, 10);
    client->RegisterUsbRemovedCallBack(observerId, 20);
  }
  client->NotifyUsbXriteAdded();
  client->NotifyUsbXriteRemoved();
  EXPECT_THAT(media.callbacks(), ElementsAre(Callback{"added", -1, 7, 10}, Callback{"removed", -1, 7, 20}));
}

/// Pulls out a mounted stick while one of its files is in use, and plugs it in again.
void pullOutInUse(bool partitioned) {
  using Names = std::vector<std::string>;
  auto [stick, media, daemon, client] =
      announce(partitioned ? Names{"sda", "sda1"} : Names{"sda"}, partitioned);
  client->RegisterUsbAddedCallBack(1, 41);
  client->RegisterUsbRemovedCallBack(2, 42);
  client->NotifyUsbAdded(stick.announcedName());
  ASSERT_TRUE(client->OpenDevice(1));

  std::ifstream held("/media/disk_1/song.mp3");
  ASSERT_TRUE(held);
  stick.unplug();
  setPartitions({});
  client->NotifyUsbRemoved(stick.announcedName());
  EXPECT_THAT(mountsAt("/media/disk_1"), IsEmpty());
  EXPECT_THAT(namesIn("/media"), IsEmpty());
  EXPECT_FALSE(client.label(1).success) << "forgotten without a rescan";
  EXPECT_THAT(client.devices(), IsEmpty());
  std::string line;
  EXPECT_TRUE(std::getline(held, line));
  EXPECT_EQ(line, "la la la");
  held.close();

  stick.plug();
  setPartitions({stick.announcedName()});
  client->NotifyUsbAdded(stick.announcedName());
  EXPECT_THAT(media.callbacks(), ElementsAre(Callback{"added", 1, 1, 41}, Callback{"removed", 1, 2, 42},
                                             Callback{"added", 1, 1, 41}));
  EXPECT_THAT(client.devices(), ElementsAre(1));
  EXPECT_TRUE(client->OpenDevice(1));
  EXPECT_EQ(readFile("/media/disk_1/song.mp3"), "la la la");
}

TEST_F(HotPlugTest, BareStickPulledOutInUseIsDetachedAndComesBack) {
  pullOutInUse(false);
}

TEST_F(HotPlugTest, PartitionedStickPulledOutInUseIsDetachedAndComesBack) {
  pullOutInUse(true);
}

TEST_F(HotPlugTest, SafelyRemovedStickComesBackWhenItIsPluggedInAgain) {
  setPartitions({"sda"});
  auto [stick, daemon, client] = serve(songStick(false));
  client->NotifyUsbAdded("sda");
  ASSERT_TRUE(client->OpenDevice(1));
  ASSERT_TRUE(client->CloseDeviceSafeRemoval(1));
  ASSERT_THAT(client.devices(), IsEmpty());

  stick.unplug();
  client->NotifyUsbRemoved("sda");
  stick.plug();
  client->NotifyUsbAdded("sda");
  EXPECT_THAT(client.devices(), ElementsAre(1));
  EXPECT_TRUE(client->OpenDevice(1));
}

TEST_F(HotPlugTest, ObserverMayCallTheDaemonFromItsCallback) {
  auto [stick, media, daemon, client] = announce();
  bool opened = false;
  media.onCallback([&opened](const Callback& callback) {
    UsbClient observer;
    if (callback.event == "added") {
      opened = observer->OpenDevice(callback.usbDevice);
      // A second notification, and so a second callback, before the first one ends.
      observer->NotifyUsbRemoved("sda");
    }
  });
  client->RegisterUsbAddedCallBack(1, 41);
  client->RegisterUsbRemovedCallBack(1, 42);
  client->NotifyUsbAdded("sda");
  EXPECT_TRUE(opened);
  EXPECT_THAT(media.callbacks(), ElementsAre(Callback{"added", 1, 1, 41}, Callback{"removed", 1, 1, 42}));
}

TEST_F(HotPlugTest, FailingObserverEndsOnlyTheNotification) {
  auto [stick, media, daemon, client] = announce();
  media.onCallback([](const Callback&) { throw std::runtime_error("no screen to show it on"); });
  client->RegisterUsbAddedCallBack(1, 41);
  client->RegisterUsbAddedCallBack(2, 42);
  EXPECT_THROW(client->NotifyUsbAdded("sda"), TApplicationException);
  EXPECT_THAT(media.callbacks(), ElementsAre(Callback{"added", 1, 1, 41}));
  EXPECT_THAT(client.devices(), ElementsAre(1));
}

TEST_F(HotPlugTest, WithoutAMediaServiceTheNotificationFailsAndTheStickIsAnnounced) {
  setPartitions({"sda"});
  auto [stick, daemon, client] = serve(songStick(false));
  client->RegisterUsbAddedCallBack(1, 41);
  EXPECT_THROW(client->NotifyUsbAdded("sda"), TApplicationException);
  EXPECT_NO_THROW(client->NotifyUsbAdded("sda")) << "the stick is announced already";
  EXPECT_TRUE(client->OpenDevice(1));
}

TEST_F(HotPlugTest, MediaServiceMayStartAfterTheDaemon) {
  const Stick stick(songStick(false));
  setPartitions({"sda"});
  std::unique_ptr<MediaService> media;
  const Daemon daemon;
  UsbClient client;
  client->RegisterUsbAddedCallBack(1, 41);
  client->RegisterUsbRemovedCallBack(1, 42);
  EXPECT_THROW(client->NotifyUsbAdded("sda"), TApplicationException);
  media = std::make_unique<MediaService>();
  client->NotifyUsbRemoved("sda");
  EXPECT_THAT(media->callbacks(), ElementsAre(Callback{"removed", 1, 1, 42}));
}

}  // namespace
}  // namespace systest
