// How the handler's module writes its lines.

#include <cerrno>
#include <limits>
#include <new>
#include <ostream>

#include "HandlerTest.h"

namespace {

/// The events before the first test: those of the handler's module come from before main.
class BeforeTheTests : public ::testing::Environment {
 public:
  void SetUp() override {
    if (!seen) {
      seen = true;
      events = journal().events();
    }
  }
  static inline bool seen = false;
  static inline std::vector<std::string> events;
};

const ::testing::Environment* const beforeTheTests =
    ::testing::AddGlobalTestEnvironment(new BeforeTheTests);  // NOLINT: GoogleTest owns it

/// A piece of a line that counts how often it is composed.
struct Piece {
  int& composed;
};
std::ostream& operator<<(std::ostream& stream, const Piece& piece) {
  ++piece.composed;
  return stream << "piece";
}

class Logging : public HandlerTest {
 protected:
  /// Writes one line of each level at a threshold. Returns the levels of the lines that appear.
  std::vector<int> levelsAt(int threshold) {
    setThreshold(threshold);
    journal().clear();
    return levelsNow();
  }
  static std::vector<int> levelsNow() {
    for (int level = 1; level <= 6; ++level) {
      Dockhand::usbClientLog.write(level, level, "text");
    }
    std::vector<int> levels;
    for (const LoggedLine& line : journal().lines()) {
      levels.push_back(line.level);
    }
    return levels;
  }
  /// Lets the handler write lines of the levels 2 to 5 and a stack trace.
  void makeAllKindsOfLines() {
    plugIn({"sdb"});
    handler->OpenDevice(1);
    handler->GetDeviceUsbVersion(result, 1);
    handler->RunDiskRepair(2);
    handler->RegisterUsbAddedCallBack(1, 2);
    handler->NotifyUsbAdded("sdc");
  }
  static std::vector<int> countsOfLevels() {
    std::vector<int> counts(7);
    for (const LoggedLine& line : journal().lines()) {
      ++counts.at(static_cast<std::size_t>(line.level));
    }
    return counts;
  }

  ravel::rpc::ReturnValueWithString result;
};

TEST_F(Logging, AsksForTheContextOnceBeforeMain) {
  ASSERT_TRUE(BeforeTheTests::seen);
  std::vector<std::string> requests;
  for (const std::string& event : BeforeTheTests::events) {
    if (event.rfind("context Dockhand.UsbClient ", 0) == 0) {
      requests.push_back(event);
    }
  }
  EXPECT_THAT(requests, ElementsAre("context Dockhand.UsbClient Src/Dockhand/DockhandClient 18"));
}

TEST_F(Logging, AsksForNoContextLater) {
  makeAllKindsOfLines();
  TestableHandler another(platform);
  EXPECT_THAT(journal().eventsBeginning("context"), IsEmpty());
  EXPECT_THAT(journal().eventsBeginning("TlogInit"), IsEmpty());
}

TEST_F(Logging, NamesItsModuleAndContextInEveryLine) {
  makeAllKindsOfLines();
  ASSERT_THAT(journal().lines(), SizeIs(::testing::Gt(30U)));
  for (const LoggedLine& line : journal().lines()) {
    EXPECT_EQ(line.context, "Dockhand.UsbClient");
    EXPECT_EQ(line.sourceFile, "Src/Dockhand/DockhandClient");
    EXPECT_GT(line.sourceLine, 18);
  }
}

TEST_F(Logging, WritesLinesFromTheThresholdUpwards) {
  EXPECT_THAT(levelsAt(0), ElementsAre(1, 2, 3, 4, 5, 6));
  EXPECT_THAT(levelsAt(1), ElementsAre(1, 2, 3, 4, 5, 6));
  EXPECT_THAT(levelsAt(2), ElementsAre(2, 3, 4, 5, 6));
  EXPECT_THAT(levelsAt(3), ElementsAre(3, 4, 5, 6));
  EXPECT_THAT(levelsAt(4), ElementsAre(4, 5, 6));
  EXPECT_THAT(levelsAt(5), ElementsAre(5, 6));
  EXPECT_THAT(levelsAt(6), ElementsAre(6));
  EXPECT_THAT(levelsAt(7), IsEmpty());
}

TEST_F(Logging, ComparesThresholdsAsSignedNumbersOf32Bits) {
  EXPECT_THAT(levelsAt(-1), ElementsAre(1, 2, 3, 4, 5, 6));
  EXPECT_THAT(levelsAt(std::numeric_limits<std::int32_t>::min()), ElementsAre(1, 2, 3, 4, 5, 6));
  EXPECT_THAT(levelsAt(std::numeric_limits<std::int32_t>::max()), IsEmpty());
  EXPECT_THAT(levelsAt(0x10002), IsEmpty());
}

TEST_F(Logging, FollowsAChangeOfTheThreshold) {
  setThreshold(6);
  handler->CloseDevice(1);
  EXPECT_THAT(journal().logs(), IsEmpty());
  setThreshold(2);
  handler->CloseDevice(1);
  EXPECT_THAT(journal().logs(),
              ElementsAre("log 2 @806 CloseDevice(1)", "log 2 @834 No such device available!"));
}

TEST_F(Logging, LetsEveryLineThroughWithoutAContext) {
  setThreshold(6);
  Dockhand::usbClientLog.context = nullptr;
  EXPECT_THAT(levelsNow(), ElementsAre(1, 2, 3, 4, 5, 6));
  for (const LoggedLine& line : journal().lines()) {
    EXPECT_EQ(line.context, "-");
    EXPECT_EQ(line.sourceFile, "Src/Dockhand/DockhandClient");
  }
}

TEST_F(Logging, WritesEverythingButTheStackTraceWithoutAContext) {
  setThreshold(1);
  makeAllKindsOfLines();
  const auto withContext = countsOfLevels();
  EXPECT_THAT(journal().events(), Contains("stack trace").Times(1));

  pullOut({"sdb"});
  platform.existing.clear();
  handler->CheckForAndUpdateNewDevices();
  Dockhand::usbClientLog.context = nullptr;
  makeAllKindsOfLines();
  EXPECT_EQ(countsOfLevels(), withContext);
  EXPECT_THAT(journal().eventsBeginning("stack trace"), IsEmpty());
  for (std::size_t level = 2; level <= 5; ++level) {
    EXPECT_GT(withContext[level], 0) << level;
  }
  EXPECT_EQ(withContext[1], 0);
}

TEST_F(Logging, DumpsTheStackAtTheLowestThresholdOnly) {
  for (const int threshold : {2, 3, 6}) {
    setThreshold(threshold);
    handler->NotifyUsbAdded("sdb");
  }
  EXPECT_THAT(journal().eventsBeginning("stack trace"), IsEmpty());
  for (const int threshold : {1, 0, -1}) {
    setThreshold(threshold);
    handler->NotifyUsbAdded("sdb");
  }
  EXPECT_THAT(journal().eventsBeginning("stack trace"), SizeIs(3));
}

TEST_F(Logging, WritesAPerCentSignAsItIs) {
  Dockhand::usbClientLog.write(2, 1, "100% %s %n %d %%");
  handler->NotifyUsbRemoved("%s%n%x%%");
  handler->OpenDeviceAt(1, "/media/%s%n", false);
  EXPECT_THAT(journal().logs(), Contains("log 2 @1 100% %s %n %d %%"));
  EXPECT_THAT(journal().logs(), Contains("log 2 @384 NotifyUsbRemoved(%s%n%x%%)"));
  EXPECT_THAT(journal().logs(), Contains("log 3 @640 OpenDeviceAt(1, /media/%s%n, isPvrDevice=0)"));
}

TEST_F(Logging, PutsThePiecesTogetherWithoutSeparators) {
  Dockhand::usbClientLog.write(5, 9999, "a", std::string("b "), 1, -2, true, false, 4294967295U, std::hex,
                               "0x", -1, 16, "");
  EXPECT_THAT(journal().logs(), ElementsAre("log 5 @9999 ab 1-2104294967295"
                                            "0xffffffff10"));
}

TEST_F(Logging, WritesAnEmptyLine) {
  Dockhand::usbClientLog.write(2, 1, "");
  EXPECT_THAT(journal().logs(), ElementsAre("log 2 @1 "));
}

TEST_F(Logging, WritesALongTextInFull) {
  const std::string text(65536, '%');
  Dockhand::usbClientLog.write(2, 1, text);
  ASSERT_THAT(journal().lines(), SizeIs(1));
  EXPECT_EQ(journal().lines().front().text, text);
}

TEST_F(Logging, WritesNumbersOf8BitsAsNumbers) {
  for (const int id : {-128, -1, 0, 10, 37, 65, 127}) {
    const auto observerId = static_cast<std::int8_t>(id);
    journal().clear();
    handler->RegisterUsbAddedCallBack(observerId, -1);
    handler->RegisterUsbRemovedCallBack(observerId, 255);
    handler->DeregisterUsbAddedCallBack(observerId, 0);
    handler->DeregisterUsbRemovedCallBack(observerId, 1);
    std::vector<std::string> texts;
    for (const LoggedLine& line : journal().lines()) {
      texts.push_back(line.text);
    }
    const std::string number = std::to_string(id);
    EXPECT_THAT(
        texts,
        ElementsAre("Register USB ADDED callback for observerId " + number + " and observer is 0xffffffff",
                    "Register USB REMOVED callback for observerId " + number + " and observer is 0xff",
                    "Deregister USB ADDED callback for observerId " + number + " and observer is 0x0",
                    "Deregister USB REMOVED callback for observerId " + number + " and observer is 0x1"));
  }
}

TEST_F(Logging, ComposesNothingForALineBelowTheThreshold) {
  int composed = 0;
  setThreshold(4);
  Dockhand::usbClientLog.write(3, 1, Piece{composed}, Piece{composed});
  EXPECT_EQ(composed, 0);
  EXPECT_THAT(journal().events(), IsEmpty());
  Dockhand::usbClientLog.write(4, 1, Piece{composed}, Piece{composed});
  EXPECT_EQ(composed, 2);
  EXPECT_THAT(journal().logs(), ElementsAre("log 4 @1 piecepiece"));
}

/// Pieces without memory: one throws, and one sets a flag, as streams of the standard library do.
struct Loud {};
std::ostream& operator<<(std::ostream& /*stream*/, const Loud& /*piece*/) {
  errno = ENOMEM;
  throw std::bad_alloc();
}
struct Quiet {};
std::ostream& operator<<(std::ostream& stream, const Quiet& /*piece*/) {
  errno = ENOMEM;
  stream.setstate(std::ios::badbit);
  return stream;
}

TEST_F(Logging, WritesAFixedTextWithoutMemoryForALine) {
  errno = ENOTCONN;
  EXPECT_NO_THROW(Dockhand::usbClientLog.write(2, 1, "half of ", Loud()));
  EXPECT_EQ(errno, ENOTCONN);
  EXPECT_NO_THROW(Dockhand::usbClientLog.write(3, 2, "half of ", Quiet(), "it"));
  EXPECT_EQ(errno, ENOTCONN);
  EXPECT_THAT(journal().logs(), ElementsAre("log 2 @1 (no memory for the text of this line)",
                                            "log 3 @2 (no memory for the text of this line)"));
}

TEST_F(Logging, ComposesALineWithoutAContext) {
  int composed = 0;
  Dockhand::usbClientLog.context = nullptr;
  Dockhand::usbClientLog.write(2, 1, Piece{composed});
  EXPECT_EQ(composed, 1);
}

TEST_F(Logging, WritesTheNoticesButNotTheTraceAtTheDefaultThreshold) {
  const auto id = plugIn({"sdb"}, "vfat");
  setThreshold(3);
  platform.disks["/dev/usb_storage_sdb"].values["LABEL"] = "STICK";
  platform.disks["/dev/usb_storage_sdb"].values["UUID"] = "1234-ABCD";
  EXPECT_TRUE(handler->OpenDevice(id));
  EXPECT_THAT(journal().logs(),
              ElementsAre("log 3 @640 OpenDeviceAt(1, /media/disk_1, isPvrDevice=0)",
                          "log 3 @656 OpenDeviceAt: found device[1] deviceName=\"sdb\" partitionCount=0, "
                          "deviceOpen=0, lastUsbOperation=0"));
}

TEST(ModuleLog, WritesEachModulesLinesToItsOwnContext) {
  TlogContext context("Some.module");
  const Dockhand::ModuleLog log{&context, "Src/Some/Module"};
  journal().clear();
  log.write(3, 17, "text");
  ASSERT_THAT(journal().lines(), SizeIs(1));
  const LoggedLine line = journal().lines().front();
  EXPECT_EQ(line.context, "Some.module");
  EXPECT_EQ(line.sourceFile, "Src/Some/Module");
  EXPECT_EQ(line.level, 3);
  EXPECT_EQ(line.sourceLine, 17);
  EXPECT_EQ(line.text, "text");
  log.write(2, 18, "below the threshold of a new context");
  EXPECT_THAT(journal().lines(), SizeIs(1));
}

}  // namespace
