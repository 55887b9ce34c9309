// A media service that makes the daemon wait. Each case takes the ten seconds of a call, so all cases run at
// once, each with its own daemon. The tests check how they ended.

#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSocket.h>

#include <chrono>
#include <initializer_list>
#include <memory>
#include <thread>

#include "HostileTest.h"
#include "Trial.h"
#include "Wire.h"
#include "usb_rpc_gen_.h"

namespace hostiletest {
namespace {

using apache::thrift::protocol::T_REPLY;
using apache::thrift::protocol::T_STRING;
using apache::thrift::protocol::TBinaryProtocol;

std::string beginOfAnswer(const std::string& operation) {
  return written([&](TBinaryProtocol& writer) { writer.writeMessageBegin(operation, T_REPLY, 1); });
}

/// An unknown field with a text of this length.
std::string uselessField(std::size_t length) {
  return written([length](TBinaryProtocol& writer) {
    writer.writeFieldBegin("", T_STRING, 99);
    writer.writeString(std::string(length, 'x'));
  });
}

const std::string endOfAnswer(1, '\0');

void doNothing(int connection, const std::string&) {
  waitForTheEnd(connection);
}

void readAndSayNothing(int connection, const std::string&) {
  while (readRequest(connection)) {
  }
}

/// Sends one byte a second: in time for each single read.
void answerInDrops(int connection, const std::string&) {
  const std::string answer = beginOfAnswer("SendUsbAddedCallback") + uselessField(100000);
  readRequest(connection);
  for (const char byte : answer) {
    if (!send(connection, std::string(1, byte))) {
      return;
    }
    std::this_thread::sleep_for(std::chrono::seconds(1));
  }
}

/// The daemon takes it for a part of the reply.
void answerAnotherCall(int connection, const std::string&) {
  readRequest(connection);
  send(connection, beginOfAnswer("SendUsbRemovedCallback") + endOfAnswer);
  waitForTheEnd(connection);
}

void answerWithoutEnd(int connection, const std::string&) {
  const std::string field = uselessField(100000);
  readRequest(connection);
  for (bool sent = send(connection, beginOfAnswer("SendUsbAddedCallback")); sent;) {
    sent = send(connection, field);
  }
}

/// Causes the same event again and waits for its end, which causes it once more.
void announceAgain(int connection, const std::string& daemonSocket) {
  readRequest(connection);
  const auto socket = std::make_shared<apache::thrift::transport::TSocket>(daemonSocket);
  ravel::rpc::usb_rpc_gen_Client daemon(std::make_shared<TBinaryProtocol>(
      std::make_shared<apache::thrift::transport::TBufferedTransport>(socket)));
  try {
    socket->open();
    daemon.NotifyUsbXriteAdded();
  } catch (const apache::thrift::TException&) {
    // It fails as it should, and nobody is notified any more.
  }
  send(connection, beginOfAnswer("SendUsbAddedCallback") + endOfAnswer);
}

/// Runs all trials at once.
struct Trials {
  Trial deaf{doNothing};
  Trial silent{readAndSayNothing};
  Trial dripping{answerInDrops};
  Trial confused{answerAnotherCall};
  Trial notAccepting{nullptr};
  Trial endless{answerWithoutEnd};
  Trial recursive{announceAgain};
};

class SlowMediaServiceTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    trials_ = std::make_unique<Trials>();
    for (Trial* trial : {&trials_->deaf, &trials_->silent, &trials_->dripping, &trials_->confused,
                         &trials_->notAccepting, &trials_->endless, &trials_->recursive}) {
      trial->start();
    }
    for (Trial* trial :
         {&trials_->deaf, &trials_->silent, &trials_->dripping, &trials_->confused, &trials_->notAccepting}) {
      expectOthersToBeAnswered(*trial);
    }
  }
  static void TearDownTestSuite() { trials_.reset(); }

  /// Runs while the notification waits for the media service.
  static void expectOthersToBeAnswered(Trial& trial) {
    const auto later = trial.newClient();
    for (systest::UsbClient* client : {&trial.held(), later.get()}) {
      EXPECT_FALSE((*client)->OpenDevice(1));
      client->devices();
      (*client)->NotifyUsbXriteRemoved();
      (*client)->NotifyUsbAdded("nothing");
      (*client)->RegisterUsbRemovedCallBack(1, 1);
    }
    EXPECT_TRUE(trial.isUnderWay());
  }

  static void expectToEndInTime(Trial& trial, const testing::Matcher<std::string>& how) {
    EXPECT_THAT(trial.end(), how);
    EXPECT_FALSE((*trial.newClient())->IsDeviceOpen(1));
    trial.expectToGetThroughAgain();
    expectSound(trial.daemon());
  }

  static inline std::unique_ptr<Trials> trials_;
  static inline const testing::Matcher<std::string> tooLate =
      HasSubstr("9014.sock: no complete reply in time");
};

TEST_F(SlowMediaServiceTest, ThatNeverReadsIsGivenUp) {
  expectToEndInTime(trials_->deaf, tooLate);
}

TEST_F(SlowMediaServiceTest, ThatIsSilentIsGivenUp) {
  expectToEndInTime(trials_->silent, tooLate);
}

TEST_F(SlowMediaServiceTest, WhoseReplyDripsIsGivenUp) {
  expectToEndInTime(trials_->dripping, tooLate);
}

TEST_F(SlowMediaServiceTest, ThatRepliesToAnotherCallIsGivenUp) {
  expectToEndInTime(trials_->confused, tooLate);
}

TEST_F(SlowMediaServiceTest, ThatDoesNotAcceptIsGivenUp) {
  expectToEndInTime(trials_->notAccepting, HasSubstr("9014.sock: connect timed out"));
}

TEST_F(SlowMediaServiceTest, WhoseReplyNeverEndsIsGivenUp) {
  expectToEndInTime(trials_->endless, tooLate);
}

TEST_F(SlowMediaServiceTest, ThatCausesTheEventAgainAndAgainIsGivenUpAndOthersAreServed) {
  Trial& trial = trials_->recursive;
  // By now its notifications hold all workers but one, and another notification waits.
  EXPECT_FALSE(trial.held()->IsDeviceOpen(1));
  EXPECT_FALSE((*trial.newClient())->IsDeviceOpen(1));
  // The next notification ends at nearly the same time, and its end may be the reply that this one waits for.
  EXPECT_THAT(trial.end(), testing::AnyOf(tooLate, "success"));
  expectSound(trial.daemon());
}

}  // namespace
}  // namespace hostiletest
