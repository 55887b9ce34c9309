// A media service that is absent, refuses, dies, restarts, sends garbage, or calls the daemon.

#include <thrift/TApplicationException.h>

#include <atomic>
#include <functional>
#include <string>

#include "BadMediaService.h"
#include "HostileTest.h"
#include "TransportTestSupport.h"
#include "Wire.h"

namespace hostiletest {
namespace {

using apache::thrift::TApplicationException;
using apache::thrift::protocol::T_BOOL;
using apache::thrift::protocol::T_CALL;
using apache::thrift::protocol::T_EXCEPTION;
using apache::thrift::protocol::T_I32;
using apache::thrift::protocol::T_LIST;
using apache::thrift::protocol::T_REPLY;
using apache::thrift::protocol::T_STRING;
using apache::thrift::protocol::T_STRUCT;
using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::protocol::TMessageType;

constexpr const char* operation = "SendUsbAddedCallback";

std::string answer(const std::string& name, TMessageType type, std::int32_t sequence) {
  return written([&](TBinaryProtocol& writer) {
    writer.writeMessageBegin(name, type, sequence);
    writer.writeFieldStop();
  });
}

/// The reply to the first call on a connection.
constexpr std::int32_t first = 1;

std::string goodAnswer() {
  return answer(operation, T_REPLY, first);
}

std::string failureOfAnUnknownType(std::int32_t sequence) {
  return written([sequence](TBinaryProtocol& writer) {
    constexpr std::int32_t unknownType = 12345;
    writer.writeMessageBegin(operation, T_EXCEPTION, sequence);
    writer.writeFieldBegin("", T_STRING, 1);
    writer.writeString(std::string("no such failure"));
    writer.writeFieldBegin("", T_I32, 2);
    writer.writeI32(unknownType);
    writer.writeFieldStop();
  });
}

/// A reply that ends after what `announce` writes: the size of something.
std::string announcement(TMessageType type, const std::function<void(TBinaryProtocol&)>& announce) {
  return written([&](TBinaryProtocol& writer) {
    writer.writeMessageBegin(operation, type, first);
    announce(writer);
  });
}

class MediaServiceTest : public HostileTest {
 protected:
  MediaServiceTest() {
    client_->RegisterUsbAddedCallBack(7, 70);
    client_->RegisterUsbRemovedCallBack(7, 71);
  }

  /// Expects that a notification fails and that the daemon still serves. Returns the reason that the caller
  /// gets.
  std::string failedNotification() {
    std::string reason;
    try {
      client_->NotifyUsbXriteAdded();
      ADD_FAILURE() << "the notification succeeded";
    } catch (const TApplicationException& failure) {
      reason = failure.what();
    }
    EXPECT_FALSE(client_->IsDeviceOpen(1));
    expectSound(daemon_);
    return reason;
  }

  /// Expects that a service that sends `bytes` and dies fails the notification.
  void expectToFail(const std::string& bytes) {
    std::atomic<bool> asked{false};
    const BadMediaService service(socketOf(9014), [&](int connection) {
      asked = readRequest(connection);
      send(connection, bytes);
    });
    failedNotification();
    EXPECT_TRUE(asked) << "a connection was kept after garbage";
  }

  void expectNotificationsToGetThroughAgain() {
    const MediaService sound;
    client_->NotifyUsbXriteAdded();
    EXPECT_THAT(sound.callbacks(), ElementsAre(Callback{"added", -1, 7, 70}));
  }

  const Daemon daemon_;
  UsbClient client_;
};

TEST_F(MediaServiceTest, AbsentFailsTheNotification) {
  EXPECT_THAT(failedNotification(), HasSubstr("9014.sock: connect: No such file or directory"));
  expectNotificationsToGetThroughAgain();
}

TEST_F(MediaServiceTest, RefusingFailsTheNotification) {
  transport_test::plainListener(socketOf(9014), 1).reset();
  EXPECT_THAT(failedNotification(), HasSubstr("9014.sock: connect: Connection refused"));
  expectNotificationsToGetThroughAgain();
}

TEST_F(MediaServiceTest, DyingBeforeItsReplyFailsTheNotification) {
  {
    const BadMediaService service(socketOf(9014), readRequest);
    failedNotification();
  }
  expectNotificationsToGetThroughAgain();
}

TEST_F(MediaServiceTest, DyingInTheMiddleOfItsReplyFailsTheNotification) {
  for (std::size_t sent = 1; sent < goodAnswer().size(); ++sent) {
    expectToFail(goodAnswer().substr(0, sent));
  }
  expectNotificationsToGetThroughAgain();
}

TEST_F(MediaServiceTest, RestartingFailsNoNotification) {
  {
    const MediaService before;
    client_->NotifyUsbXriteAdded();
  }
  // The kept connection died with the first service.
  const MediaService second;
  client_->NotifyUsbXriteAdded();
  client_->NotifyUsbXriteRemoved();
  EXPECT_THAT(second.callbacks(), ElementsAre(Callback{"added", -1, 7, 70}, Callback{"removed", -1, 7, 71}));
}

TEST_F(MediaServiceTest, SendingGarbageFailsTheNotification) {
  expectToFail("HTTP/1.0 400 Bad Request\r\n\r\n");
  expectToFail(std::string(600, '\xff'));
  expectToFail(std::string(12, '\0'));
  expectToFail(goodCall());
  expectToFail(answer("SendUsbRemovedCallback", T_REPLY, first));
  expectToFail(answer(operation, T_CALL, first));
  expectToFail(answer(operation, T_REPLY, first - 1));
  expectToFail(answer(operation, T_REPLY, first + 1));
  expectNotificationsToGetThroughAgain();
}

TEST_F(MediaServiceTest, AnnouncingHugeSizesFailsTheNotificationAndTakesNoMemory) {
  constexpr std::int32_t twoGigabytes = 0x7fffffff;
  constexpr std::uint32_t twoBillion = 2000000000;
  const auto text = [](TBinaryProtocol& writer) {
    writer.writeFieldBegin("", T_STRING, 1);
    writer.writeI32(twoGigabytes);
  };
  const auto list = [](TBinaryProtocol& writer) {
    writer.writeFieldBegin("", T_LIST, 1);
    writer.writeListBegin(T_BOOL, twoBillion);
  };
  const auto structures = [](TBinaryProtocol& writer) {
    for (int level = 0; level < 5000; ++level) {
      writer.writeFieldBegin("", T_STRUCT, 1);
    }
  };
  const std::size_t before = peakMemoryOf(daemon_);
  for (const std::string& bytes : {announcement(T_REPLY, text), announcement(T_REPLY, list),
                                   announcement(T_REPLY, structures), announcement(T_EXCEPTION, text),
                                   announcement(T_EXCEPTION, list), announcement(T_EXCEPTION, structures)}) {
    expectToFail(bytes);
  }
  constexpr std::size_t farLessThanAnnounced = 64 * 1024;
  EXPECT_LE(peakMemoryOf(daemon_), before + farLessThanAnnounced);
  expectNotificationsToGetThroughAgain();
}

TEST_F(MediaServiceTest, ReplyingWithAFailureOfAnUnknownTypeFailsTheNotification) {
  const BadMediaService service(socketOf(9014), [](int connection) {
    for (std::int32_t call = first; readRequest(connection); ++call) {
      send(connection, failureOfAnUnknownType(call));
    }
  });
  EXPECT_EQ(failedNotification(), "no such failure");
  EXPECT_EQ(failedNotification(), "no such failure");
}

TEST_F(MediaServiceTest, SendingMoreThanAReplyFailsNoNotification) {
  const BadMediaService service(socketOf(9014), [](int connection) {
    while (readRequest(connection)) {
      send(connection, goodAnswer() + failureOfAnUnknownType(first + 1));
    }
  });
  for (int notification = 0; notification < 3; ++notification) {
    client_->NotifyUsbXriteAdded();
  }
  expectSound(daemon_);
}

TEST_F(MediaServiceTest, MayCallTheDaemonFromInsideACallback) {
  MediaService mediaService;
  mediaService.onCallback([](const Callback& callback) {
    UsbClient fromInside;
    EXPECT_FALSE(fromInside->IsDeviceOpen(1));
    EXPECT_FALSE(fromInside->OpenDevice(1));
    fromInside.devices();
    if (callback.event == "added") {
      fromInside->NotifyUsbAdded("sdz9");
      fromInside->NotifyUsbXriteRemoved();
      fromInside->DeregisterUsbAddedCallBack(7, 0);
    }
  });
  client_->NotifyUsbXriteAdded();
  EXPECT_THAT(mediaService.callbacks(),
              ElementsAre(Callback{"added", -1, 7, 70}, Callback{"removed", -1, 7, 71}));
  client_->NotifyUsbXriteAdded();
  EXPECT_EQ(mediaService.callbacks().size(), 2U) << "the observer was deregistered";
  expectSound(daemon_);
}

TEST_F(MediaServiceTest, LeaksNoDescriptorHoweverItFails) {
  const BadMediaService service(socketOf(9014), readRequest);
  for (int notification = 0; notification < 100; ++notification) {
    failedNotification();
  }
  expectConnections(daemon_, 1);
}

}  // namespace
}  // namespace hostiletest
