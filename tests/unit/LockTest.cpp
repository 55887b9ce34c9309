// The functions that may be called only with the handler's lock held.

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "HandlerTest.h"

namespace {

class LockTest : public HandlerTest {};

TEST_F(LockTest, IsRequiredInADebugBuildByEachFunctionThatReliesOnIt) {
  const auto id = plugIn({"sdb"}, "vfat");
  const std::vector<std::pair<std::string, std::function<void()>>> calls = {
      {"findDevice", [&] { handler->findDevice(id); }},
      {"insertDevice", [&] { handler->insertDevice("sdc", ""); }},
      {"eraseVanishedDevices", [&] { handler->eraseVanishedDevices(); }},
      {"releaseDevice", [&] { handler->releaseDevice(id, false); }},
      {"CheckForAndRemoveMount", [&] { handler->CheckForAndRemoveMount("/media/disk", false); }},
      {"NodeHold", [&] { const TestableHandler::NodeHold hold(*handler, "/dev/usb_storage_sdb"); }},
      {"letNodeGo", [&] { handler->letNodeGo(); }},
      {"clearAutomounts", [&] { handler->clearAutomounts(id); }},
      {"mountByTable", [&] { handler->mountByTable("/dev/usb_storage_sdb", "/media/disk_1", "vfat"); }},
      {"getBlkidLookupValue", [&] { handler->getBlkidLookupValue(1, "TYPE"); }},
      {"keepFailedProbe", [&] { handler->keepFailedProbe(nullptr); }},
      {"findByKernelName", [&] { handler->findByKernelName("sdb"); }},
      {"isListedOnce", [&] { handler->isListedOnce("sdb"); }},
      {"prepareDisk", [&] { handler->prepareDisk(id, entry(id)); }},
      {"pvrLabel", [&] { handler->pvrLabel(id, true); }},
      {"setPvrPreparationRunning", [&] { handler->setPvrPreparationRunning(false); }},
  };
  for (const auto& [name, call] : calls) {
    SCOPED_TRACE(name);
    EXPECT_DEBUG_DEATH(call(), "lockOwner_");
    const TestableHandler::Lock lock(*handler);
    call();
  }
}

}  // namespace
