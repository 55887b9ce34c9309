// Rules for all operations: unknown device numbers, and the lock.

#include <functional>
#include <regex>
#include <utility>

#include "HandlerTest.h"

namespace {

using ravel::rpc::ReturnValueWithString;

using Operations = ravel::rpc::usb_rpc_gen_If;

class EveryOperation : public HandlerTest {
 protected:
  using Call = std::function<std::string(std::int16_t)>;

  /// Calls an operation that returns a text. The reply is in one line.
  Call replyOf(void (Operations::*operation)(ReturnValueWithString&, std::int16_t)) {
    return [this, operation](std::int16_t deviceId) {
      ReturnValueWithString reply;
      reply.success = true;
      reply.text = "left over";
      ((*handler).*operation)(reply, deviceId);
      return (reply.success ? "yes " : "no ") + reply.text;
    };
  }
  /// Calls an operation that returns a flag or a number.
  template <typename Reply>
  Call replyOf(Reply (Operations::*operation)(std::int16_t)) {
    return [this, operation](std::int16_t deviceId) {
      return std::to_string(((*handler).*operation)(deviceId));
    };
  }
  /// Adds the state of a preparation and a repair to the reply, and ends the preparation.
  Call withState(const Call& call) {
    return [this, call](std::int16_t deviceId) {
      const std::string reply = call(deviceId) + " ";
      const bool repairing = handler->diskRepairRunning || handler->diskRepairDeviceId != 0;
      const bool preparing = std::exchange(handler->pvrPreparationRunning, false);
      return reply + (preparing ? "preparing" : repairing ? "repairing" : "idle");
    };
  }
};

TEST_F(EveryOperation, RepliesForNumbersThatNoDeviceHas) {
  struct Row {
    Call call;
    std::string reply;
    /// With {} for the number.
    std::vector<std::string> events;
  };
  const std::vector<Row> rows = {
      {replyOf(&Operations::OpenDevice),
       "0",
       {"log 3 @640 OpenDeviceAt({}, /media/disk_{}, isPvrDevice=0)",
        "log 2 @142 CheckForAndUpdateNewDevices", "scandir /dev",
        "log 2 @196 entry: name=sdb1 number=1 matchFound=1", "log 2 @652 Number of devices in map 3",
        "log 3 @656 OpenDeviceAt: found device[1] deviceName=\"sdb\" partitionCount=1, deviceOpen=1, "
        "lastUsbOperation=0",
        "log 3 @656 OpenDeviceAt: found device[32768] deviceName=\"sdb\" partitionCount=1, deviceOpen=1, "
        "lastUsbOperation=0",
        "log 3 @656 OpenDeviceAt: found device[65535] deviceName=\"sdb\" partitionCount=1, deviceOpen=1, "
        "lastUsbOperation=0",
        "log 2 @669 No such device available or device not plugged in"}},
      {replyOf(&Operations::CloseDevice),
       "0",
       {"log 2 @806 CloseDevice({})", "log 2 @834 No such device available!"}},
      {replyOf(&Operations::CloseDeviceSafeRemoval),
       "0",
       {"log 2 @816 CloseDeviceSafeRemoval({})", "log 2 @834 No such device available!"}},
      {replyOf(&Operations::IsDeviceOpen),
       "0",
       {"log 2 @792 IsDeviceOpen({})", "log 2 @797 No such device available!"}},
      {replyOf(&Operations::GetDeviceType),
       "0",
       {"log 2 @1068 GetDeviceType", "log 5 @1072 GetDeviceType({}) - Unknown device!",
        "log 2 @1090 GetDeviceUsbVersion({})=0"}},
      {replyOf(&Operations::GetDeviceCapacity),
       "0",
       {"log 2 @1318 GetDeviceCapacity", "log 2 @1152 GetUsbMountDevice", "open ",
        "log 5 @1325 open() failed! errno=2", "close -1", "log 5 @1334 close(-1) failed! errno=9",
        "log 2 @1339 GetDeviceCapacity({})=0"}},
      {replyOf(&Operations::GetDeviceUsbVersion),
       "no ",
       {"log 2 @1276 GetDeviceUsbVersion", "log 5 @1282 GetDeviceUsbVersion({}) - Unknown device!",
        "log 2 @1309 GetDeviceUsbVersion({})="}},
      {replyOf(&Operations::GetUsbPhysicalDevice), "no ", {"log 2 @1136 GetUsbPhysicalDevice"}},
      {replyOf(&Operations::GetDeviceLabel),
       "no NONAME",
       {"log 2 @1046 GetDeviceLabel", "log 2 @1060 GetDeviceLabel({})=NONAME"}},
      {replyOf(&Operations::GetDeviceUuid),
       "no 0000-0000",
       {"log 2 @1024 GetDeviceUuid", "log 2 @1036 GetDeviceUUID({})=0000-0000"}},
      {withState(replyOf(&Operations::PrepareDeviceForPvr)),
       "0 preparing",
       {"log 2 @860 PrepareDeviceForPvr({})", "log 4 @866 PrepareDeviceForPvr() - Unknown device: {}"}},
      {withState(replyOf(&Operations::RunDiskRepair)),
       "0 idle",
       {"log 2 @1187 RunDiskRepair({})", "log 2 @952 GetPartitionInfo({})",
        "log 5 @965 GetPartitionInfo({}) - Unknown device!",
        "log 5 @1194 RunDiskRepair({}) - Unknown device!", "log 3 @1263 xfs_repair FAILED"}},
  };
  plugIn({"sdb1"}, "vfat");
  entry(1).deviceOpen = true;
  addRecordsUnderUnsignedNumbers();
  for (const Row& row : rows) {
    for (const auto id : unknownIds) {
      const std::string number = std::to_string(id);
      journal().clear();
      EXPECT_EQ(row.call(id), row.reply) << row.events[0] << number;
      std::vector<std::string> events;
      for (const std::string& event : row.events) {
        events.push_back(std::regex_replace(event, std::regex("\\{\\}"), number));
      }
      EXPECT_EQ(journal().events(), events);
    }
  }
}

TEST_F(EveryOperation, HoldsTheLockForAllButItsFirstLine) {
  struct Row {
    std::function<void()> run;
    std::vector<std::string> withoutLock;
    /// How many of its events, at least, hold the lock.
    std::size_t withLock;
  };
  plugIn({"sdb"}, "vfat");
  platform.files = {{"/sys/block/sdb/removable", "1"},
                    {"/tmp/sdb_bcdUSB.txt", "2.00\n"},
                    {"/proc/mounts", "/dev/usb_storage_sdb /media/disk_1 vfat rw 0 0\n"}};
  platform.directories["/media/disk_1/music"] = {"a.mp3"};
  platform.mountError = [](const FakePlatform::Mount&) { return ENODEV; };
  const auto isMounted = [this] {
    entry(1).deviceOpen = true;
    entry(1).mountPoint = "/media/disk_1";
    platform.existing = {"/media/disk_1"};
  };
  ReturnValueWithString reply;
  std::vector<std::int16_t> devices;
  std::vector<std::string> files;
  const std::vector<Row> rows = {
      {[&] { handler->CheckForAndUpdateNewDevices(); }, {"CheckForAndUpdateNewDevices"}, 2},
      {[&] { handler->GetListOfInsertedDevices(devices, false); }, {"GetListOfInsertedDevices"}, 4},
      {[&] { handler->IsDeviceOpen(9); }, {}, 2},
      {[&] { handler->GetDeviceType(1); }, {"GetDeviceType"}, 4},
      {[&] { handler->GetDeviceUsbVersion(reply, 1); }, {"GetDeviceUsbVersion"}, 6},
      {[&] { handler->GetDeviceCapacity(1); }, {"GetDeviceCapacity"}, 5},
      {[&] { handler->GetFilesByExtension(files, 1, "music", "mp3"); }, {"GetFilesByExtension(1)"}, 2},
      {[&] { EXPECT_TRUE(handler->CloseDevice(1)); }, {"CloseDevice(1)"}, 9},
      {[&] { EXPECT_TRUE(handler->CloseDeviceSafeRemoval(1)); }, {"CloseDeviceSafeRemoval(1)"}, 9},
      {[&] {
         entry(1).safelyRemoved = false;
         EXPECT_FALSE(handler->OpenDevice(1));
       },
       {"OpenDeviceAt(1, /media/disk_1, isPvrDevice=0)"},
       40},
      {[&] { handler->PrepareDeviceForPvr(1); }, {}, 20},
      {[&] { handler->PrepareDeviceForPvr(9); }, {}, 2},
  };
  watchLock();
  for (const Row& row : rows) {
    isMounted();
    journal().clear();
    unlocked.clear();
    row.run();
    SCOPED_TRACE(journal().events().at(0));
    EXPECT_EQ(unlocked, row.withoutLock);
    EXPECT_GE(journal().events().size(), row.withoutLock.size() + row.withLock);
    EXPECT_FALSE(lockIsHeld());
  }
}

TEST_F(EveryOperation, ThatCallsNothingWaitsForTheLockToo) {
  plugIn({"sdb"});
  ReturnValueWithString reply;
  for (const std::function<void()>& run : std::vector<std::function<void()>>{
           [&] { handler->GetUsbPhysicalDevice(reply, 1); },
           [&] { handler->GetUsbMountPoint(reply, 1); },
           [&] { handler->RegisterUsbAddedCallBack(1, 1); },
           [&] { handler->RegisterUsbRemovedCallBack(1, 1); },
           [&] { handler->DeregisterUsbAddedCallBack(1, 1); },
           [&] { handler->DeregisterUsbRemovedCallBack(1, 1); },
       }) {
    journal().clear();
    EXPECT_TRUE(waitsForTheLock(run)) << journal().events().at(0);
    EXPECT_FALSE(lockIsHeld());
  }
}

}  // namespace
