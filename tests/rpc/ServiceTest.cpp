// The RPC front: the server as the daemon builds it, over a fake system, called through its real socket.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <thrift/TApplicationException.h>
#include <thrift/transport/TTransportException.h>

#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "DockhandServer.h"
#include "FakePlatform.h"
#include "Journal.h"
#include "MediaService.h"
#include "ModuleLog.h"
#include "SocketDirectory.h"
#include "TUnixServerSocket.h"
#include "UsbClient.h"
#include "corvane_rpc_gen_.h"
#include "usb_rpc_gen_.h"

using apache::thrift::TApplicationException;
using apache::thrift::transport::TTransportException;
using ravel::rpc::ReturnValueWithString;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using testsupport::Callback;
using testsupport::MediaService;

namespace {

using UsbConnection = testsupport::UsbClient;

bool hasSomethingToRead(UsbConnection& connection) {
  pollfd waiting{connection.socket().getSocketFD(), POLLIN, 0};
  return poll(&waiting, 1, 0) > 0;
}

/// The service. Its threads never end, so all tests share one that is never destroyed.
struct Service {
  const SocketDirectory sockets;
  FakePlatform platform;
  std::unique_ptr<Dockhand::DockhandServer> server;
  std::vector<std::string> startUp;

  Service() {
    TlogContext::GetLogContext("Dockhand.UsbServer", "", 0)->setThreshold(2);
    Dockhand::usbClientLog.context->setThreshold(2);
    journal().clear();
    server = std::make_unique<Dockhand::DockhandServer>(platform);
    startUp = journal().logs();
  }
};

Service& service() {
  static auto* const instance = new Service();
  return *instance;
}

class ServiceTest : public ::testing::Test {
 protected:
  ServiceTest() {
    service().platform.deviceNodes.clear();
    service().platform.scandirIgnoresFilter = false;
    UsbConnection connection;
    connection->CheckForAndUpdateNewDevices();
    connection->CheckForAndUpdateNewDevices();
    journal().clear();
  }
  ~ServiceTest() override { service().platform.onCall = nullptr; }

  /// Makes a device known to the service; returns its number.
  static std::int16_t plugIn(const std::string& kernelName) {
    service().platform.deviceNodes = {"usb_storage_" + kernelName};
    UsbConnection connection;
    std::vector<std::int16_t> devices;
    connection->GetListOfInsertedDevices(devices, true);
    journal().clear();
    return devices.at(0);
  }

  static void expectServing() {
    UsbConnection connection;
    EXPECT_FALSE(connection->IsDeviceOpen(-1));
  }
};

TEST_F(ServiceTest, LogsFourLinesAroundItsStart) {
  EXPECT_THAT(
      service().startUp,
      ElementsAre("log 2 @11 Before creating DockhandClient", "log 2 @142 CheckForAndUpdateNewDevices",
                  "log 2 @13 After creating DockhandClient", "log 2 @15 Before starting rpcServer.start",
                  "log 2 @17 After starting rpcServer.start"));
}

TEST_F(ServiceTest, CarriesEveryOperationToTheHandler) {
  const MediaService mediaService;
  const auto id = plugIn("sda1");
  UsbConnection usb;
  ReturnValueWithString text;
  std::vector<std::int16_t> devices;
  std::vector<std::string> files;

  const auto expectLogged = [](const std::string& line) {
    EXPECT_THAT(journal().logs(), Contains(line));
    journal().clear();
  };
  usb->NotifyUsbAdded("sda1");
  expectLogged("log 2 @300 NotifyUSB added sda1");
  usb->RegisterUsbAddedCallBack(1, 16);
  expectLogged("log 2 @1350 Register USB ADDED callback for observerId 1 and observer is 0x10");
  usb->RegisterUsbRemovedCallBack(2, 17);
  expectLogged("log 2 @1360 Register USB REMOVED callback for observerId 2 and observer is 0x11");
  usb->NotifyUsbXriteAdded();
  expectLogged("log 2 @452 Xrite device inserted");
  usb->NotifyUsbXriteRemoved();
  expectLogged("log 2 @478 Xrite device removed");
  usb->GetListOfInsertedDevices(devices, false);
  EXPECT_THAT(devices, ElementsAre(id));
  expectLogged("log 2 @262 GetListOfInsertedDevices");
  EXPECT_TRUE(usb->OpenDevice(id));
  expectLogged("log 3 @640 OpenDeviceAt(1, /media/disk_1, isPvrDevice=0)");
  EXPECT_TRUE(usb->OpenDeviceAt(id, "/media/elsewhere", true));
  expectLogged("log 3 @640 OpenDeviceAt(1, /media/elsewhere, isPvrDevice=1)");
  EXPECT_TRUE(usb->IsDeviceOpen(id));
  expectLogged("log 2 @792 IsDeviceOpen(1)");
  usb->GetUsbMountPoint(text, id);
  EXPECT_TRUE(text.success);
  EXPECT_EQ(text.text, "/media/elsewhere");
  expectLogged("log 2 @1103 GetUsbMountPoint");
  EXPECT_TRUE(usb->CloseDevice(id));
  expectLogged("log 2 @806 CloseDevice(1)");
  EXPECT_FALSE(usb->CloseDeviceSafeRemoval(id));
  expectLogged("log 2 @816 CloseDeviceSafeRemoval(1)");
  usb->GetDeviceLabel(text, id);
  EXPECT_EQ(text.text, "NONAME");
  expectLogged("log 2 @1046 GetDeviceLabel");
  usb->GetDeviceUuid(text, id);
  EXPECT_EQ(text.text, "0000-0000");
  expectLogged("log 2 @1024 GetDeviceUuid");
  usb->GetDeviceUsbVersion(text, id);
  EXPECT_TRUE(text.success);
  expectLogged("log 2 @1276 GetDeviceUsbVersion");
  EXPECT_EQ(usb->GetDeviceType(id), 0);
  expectLogged("log 2 @1068 GetDeviceType");
  EXPECT_EQ(usb->GetDeviceCapacity(id), 0);
  expectLogged("log 2 @1318 GetDeviceCapacity");
  usb->GetUsbPhysicalDevice(text, id);
  EXPECT_EQ(text.text, "sda1");
  expectLogged("log 2 @1136 GetUsbPhysicalDevice");
  usb->GetFilesByExtension(files, id, "music", "mp3");
  EXPECT_THAT(files, IsEmpty());
  expectLogged("log 2 @1402 GetFilesByExtension(1)");
  usb->DeregisterUsbAddedCallBack(1, 18);
  expectLogged("log 2 @1370 Deregister USB ADDED callback for observerId 1 and observer is 0x12");
  usb->DeregisterUsbRemovedCallBack(2, 19);
  expectLogged("log 2 @1380 Deregister USB REMOVED callback for observerId 2 and observer is 0x13");
  usb->CheckForAndUpdateNewDevices();
  expectLogged("log 2 @142 CheckForAndUpdateNewDevices");
  EXPECT_FALSE(usb->RunDiskRepair(id));
  expectLogged("log 2 @1187 RunDiskRepair(1)");
  EXPECT_TRUE(usb->PrepareDeviceForPvr(id));
  expectLogged("log 2 @860 PrepareDeviceForPvr(1)");
  usb->NotifyUsbRemoved("sda1");
  expectLogged("log 2 @384 NotifyUsbRemoved(sda1)");
}

TEST_F(ServiceTest, TreatsExtremeNumbersAsUnknownDevices) {
  UsbConnection usb;
  for (const std::int16_t id : std::vector<std::int16_t>{-1, 32767, -32768}) {
    ReturnValueWithString text;
    EXPECT_FALSE(usb->OpenDevice(id));
    EXPECT_FALSE(usb->IsDeviceOpen(id));
    EXPECT_FALSE(usb->CloseDevice(id));
    EXPECT_FALSE(usb->CloseDeviceSafeRemoval(id));
    EXPECT_FALSE(usb->RunDiskRepair(id));
    EXPECT_EQ(usb->GetDeviceType(id), 0);
    EXPECT_EQ(usb->GetDeviceCapacity(id), 0);
    usb->GetUsbPhysicalDevice(text, id);
    EXPECT_FALSE(text.success);
  }
}

TEST_F(ServiceTest, RepliesToOddTextsInEveryTextArgument) {
  const auto id = plugIn("sda");
  UsbConnection usb;
  for (const std::string& odd : {std::string(), std::string(65536, 'x'), std::string("a\0b", 3)}) {
    std::vector<std::string> files;
    usb->NotifyUsbAdded(odd);
    usb->NotifyUsbRemoved(odd);
    usb->OpenDeviceAt(id, odd, false);
    usb->GetFilesByExtension(files, id, odd, "mp3");
    usb->GetFilesByExtension(files, id, "", odd);
    EXPECT_THAT(files, IsEmpty());
  }
  usb->CloseDevice(id);
}

TEST_F(ServiceTest, EndsTheConnectionOfATextAboveOneMebibyteAndNoOther) {
  UsbConnection good;
  UsbConnection greedy;
  greedy->NotifyUsbRemoved(std::string(1 << 20, 'x'));
  EXPECT_THROW(greedy->NotifyUsbRemoved(std::string((1 << 20) + 1, 'x')), TTransportException);
  EXPECT_FALSE(good->IsDeviceOpen(1));
}

TEST_F(ServiceTest, ServesTenClientsAndTheEleventhWhenOneLeaves) {
  std::vector<std::unique_ptr<UsbConnection>> ten;
  for (int i = 0; i < 10; ++i) {
    ten.push_back(std::make_unique<UsbConnection>());
    (*ten.back())->IsDeviceOpen(1);
  }
  UsbConnection eleventh;
  eleventh->send_IsDeviceOpen(1);
  for (int round = 0; round < 20; ++round) {
    for (const auto& client : ten) {
      (*client)->IsDeviceOpen(1);
    }
  }
  EXPECT_FALSE(hasSomethingToRead(eleventh));
  ten.pop_back();
  EXPECT_FALSE(eleventh->recv_IsDeviceOpen());
}

TEST_F(ServiceTest, AnswersAnUnknownMethodWithItsApplicationException) {
  testsupport::Connection<ravel::rpc::corvane_rpc_gen_Client> wrongService;
  try {
    wrongService->SendUsbAddedCallback(1, 2, 3);
    FAIL() << "the method was answered";
  } catch (const TApplicationException& exception) {
    EXPECT_EQ(exception.getType(), TApplicationException::UNKNOWN_METHOD);
  }
  expectServing();
}

TEST_F(ServiceTest, ServesSeveralCallsOnOneConnection) {
  UsbConnection usb;
  for (int i = 0; i < 1000; ++i) {
    ASSERT_FALSE(usb->IsDeviceOpen(1));
  }
}

TEST_F(ServiceTest, KeepsServingAfterAnExceptionInTheHandler) {
  UsbConnection usb;
  service().platform.scandirIgnoresFilter = true;
  service().platform.deviceNodes = {"short"};
  EXPECT_THROW(usb->CheckForAndUpdateNewDevices(), TApplicationException);
  service().platform.deviceNodes.clear();
  // The connection still works, and the lock is free for others.
  usb->CheckForAndUpdateNewDevices();
  expectServing();
}

TEST_F(ServiceTest, SurvivesAClientThatVanishesInTheMiddleOfItsCall) {
  std::promise<void> callHasBegun;
  std::promise<void> clientHasGone;
  bool first = true;
  service().platform.onCall = [&](const std::string&) {
    if (first) {
      first = false;
      callHasBegun.set_value();
      clientHasGone.get_future().wait();
    }
  };
  {
    UsbConnection vanishing;
    vanishing->send_CheckForAndUpdateNewDevices();
    callHasBegun.get_future().wait();
  }
  clientHasGone.set_value();
  expectServing();
  expectServing();
}

TEST_F(ServiceTest, SurvivesGarbageAndHalfMessages) {
  for (const std::string& rubbish :
       {std::string("GET / HTTP/1.1\r\n\r\n"), std::string("\x80\x01\x00\x01\x00\x00\x00\x10half", 12),
        std::string("\x80\x01\x00\x01\x7F\xFF\xFF\xFF", 8), std::string(100, '\xFF'),
        std::string(100, '\0')}) {
    for (int i = 0; i < 12; ++i) {
      UsbConnection rude;
      rude.send(rubbish);
    }
  }
  expectServing();
}

TEST_F(ServiceTest, ServesTenClientsCallingAtOnce) {
  plugIn("sda");
  std::vector<std::thread> clients;
  for (int i = 0; i < 10; ++i) {
    clients.emplace_back([] {
      UsbConnection usb;
      for (int call = 0; call < 50; ++call) {
        std::vector<std::int16_t> devices;
        usb->GetListOfInsertedDevices(devices, true);
        EXPECT_THAT(devices, ElementsAre(1));
      }
    });
  }
  for (std::thread& client : clients) {
    client.join();
  }
}

class Callbacks : public ServiceTest {
 protected:
  Callbacks() {
    UsbConnection usb;
    usb->RegisterUsbAddedCallBack(7, 0x77);
    usb->RegisterUsbRemovedCallBack(7, 0x78);
    // No media service is up yet, so this fails and drops the connection that an earlier test left.
    EXPECT_THROW(usb->NotifyUsbXriteAdded(), TApplicationException);
  }
  ~Callbacks() override {
    UsbConnection usb;
    usb->DeregisterUsbAddedCallBack(7, 0);
    usb->DeregisterUsbRemovedCallBack(7, 0);
  }
};

TEST_F(Callbacks, ReachTheMediaServiceAndReplaceAnEarlierRegistration) {
  const MediaService mediaService;
  UsbConnection usb;
  usb->RegisterUsbAddedCallBack(7, -2);
  usb->NotifyUsbXriteAdded();
  EXPECT_THAT(mediaService.callbacks(), ElementsAre(Callback{"added", -1, 7, -2}));
}

TEST_F(Callbacks, LetAnObserverCallTheServiceAndCauseAnotherNotification) {
  MediaService mediaService;
  mediaService.onCallback([](const Callback& callback) {
    if (callback.event == "added") {
      UsbConnection fromInside;
      EXPECT_FALSE(fromInside->IsDeviceOpen(1));
      fromInside->NotifyUsbXriteRemoved();
    }
  });
  UsbConnection usb;
  usb->NotifyUsbXriteAdded();
  EXPECT_THAT(mediaService.callbacks(),
              ElementsAre(Callback{"added", -1, 7, 0x77}, Callback{"removed", -1, 7, 0x78}));
}

TEST_F(Callbacks, FailToTheCallerOfTheNotificationWithoutAMediaService) {
  UsbConnection usb;
  EXPECT_THROW(usb->NotifyUsbXriteAdded(), TApplicationException);
  EXPECT_FALSE(usb->IsDeviceOpen(1));
}

TEST_F(Callbacks, SucceedAfterTheMediaServiceWasRestarted) {
  UsbConnection usb;
  {
    const MediaService first;
    usb->NotifyUsbXriteAdded();
  }
  EXPECT_THROW(usb->NotifyUsbXriteAdded(), TApplicationException);
  const MediaService second;
  usb->NotifyUsbXriteAdded();
  EXPECT_THAT(second.callbacks(), ElementsAre(Callback{"added", -1, 7, 0x77}));
}

TEST_F(Callbacks, SucceedAfterTheMediaServiceSentGarbage) {
  UsbConnection usb;
  {
    ravel::rpc::TUnixServerSocket rubbishService(9014);
    std::thread answering([&rubbishService] {
      const auto connection = rubbishService.accept();
      std::uint8_t request = 0;
      connection->read(&request, 1);
      const std::string rubbish(64, '\x5A');
      connection->write(reinterpret_cast<const std::uint8_t*>(rubbish.data()),
                        static_cast<std::uint32_t>(rubbish.size()));
    });
    EXPECT_THROW(usb->NotifyUsbXriteAdded(), TApplicationException);
    answering.join();
  }
  const MediaService sound;
  usb->NotifyUsbXriteAdded();
  EXPECT_THAT(sound.callbacks(), ElementsAre(Callback{"added", -1, 7, 0x77}));
}

TEST_F(Callbacks, FailOnceWhenAnsweredWithAnApplicationException) {
  MediaService mediaService;
  mediaService.onCallback([](const Callback&) { throw std::runtime_error("not now"); });
  UsbConnection usb;
  EXPECT_THROW(usb->NotifyUsbXriteAdded(), TApplicationException);
  mediaService.onCallback(nullptr);
  usb->NotifyUsbXriteAdded();
  EXPECT_EQ(mediaService.callbacks().size(), 2U);
}

}  // namespace
