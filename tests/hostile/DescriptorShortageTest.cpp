// A daemon without free descriptors, and one that keeps a reserve for its work.

#include <sys/resource.h>
#include <thrift/TApplicationException.h>

#include <fstream>
#include <future>
#include <memory>
#include <optional>
#include <vector>

#include "HostileTest.h"
#include "IdleCrowd.h"
#include "TUnixSocket.h"

namespace hostiletest {
namespace {

class DescriptorShortageTest : public HostileTest {
 protected:
  /// Leaves the daemon descriptors for at most twenty connections.
  static void limitDescriptors(const Daemon& daemon) {
    rlimit limit{};
    ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_NOFILE, nullptr, &limit), 0);
    limit.rlim_cur = descriptorsAtRest + 20;
    ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_NOFILE, &limit, nullptr), 0);
  }

  /// Connects until the daemon reports that it cannot accept.
  void connectUntilNoneIsLeft(const Daemon& daemon) {
    ASSERT_TRUE(eventually([this, &daemon] {
      // The backlog of the listening socket keeps at most 128 more.
      if (idle_.size() < 100) {
        idle_.push_back(std::make_unique<ravel::rpc::TUnixSocket>("localhost", 9020));
        idle_.back()->open();
      }
      return daemon.log().find(shortage) != std::string::npos;
    }));
  }

  static constexpr const char* shortage =
      "9020.sock: cannot accept connections, retrying: Too many open files";

  std::vector<std::unique_ptr<ravel::rpc::TUnixSocket>> idle_;
};

TEST_F(DescriptorShortageTest, EndsWithoutARestart) {
  const Daemon daemon;
  UsbClient held;
  held->IsDeviceOpen(1);
  limitDescriptors(daemon);
  connectUntilNoneIsLeft(daemon);
  EXPECT_FALSE(held->IsDeviceOpen(1));

  UsbClient late;
  late->send_IsDeviceOpen(1);
  idle_.clear();
  EXPECT_FALSE(late->recv_IsDeviceOpen());
  EXPECT_FALSE(UsbClient()->IsDeviceOpen(1));
  expectConnections(daemon, 2);
  EXPECT_THAT(daemon.log().substr(daemon.log().find(shortage) + 1), Not(HasSubstr(shortage)))
      << "the shortage was reported more than once";
  expectSound(daemon);
}

TEST_F(DescriptorShortageTest, FailsOnlyWhatNeedsADescriptor) {
  const Daemon daemon;
  const MediaService mediaService;
  UsbClient held;
  held->RegisterUsbAddedCallBack(7, 1);
  limitDescriptors(daemon);
  connectUntilNoneIsLeft(daemon);

  EXPECT_THAT(held.devices(), IsEmpty());
  EXPECT_THAT(daemon.log(), HasSubstr("scandir failed, errno=24"));
  EXPECT_THROW(held->NotifyUsbXriteAdded(), apache::thrift::TApplicationException);
  EXPECT_THAT(mediaService.callbacks(), IsEmpty());
  EXPECT_THAT(held.files(1, "/", "none"), IsEmpty());
  held->RegisterUsbAddedCallBack(7, 2);

  idle_.clear();
  ASSERT_TRUE(eventually([&held] {
    try {
      held->NotifyUsbXriteAdded();
      return true;
    } catch (const apache::thrift::TApplicationException&) {
      return false;
    }
  }));
  EXPECT_THAT(mediaService.callbacks(), ElementsAre(Callback{"added", -1, 7, 2}));
  expectSound(daemon);
}

TEST_F(DescriptorShortageTest, IsNotCausedByFiveThousandIdleClients) {
  std::optional<Daemon> daemon;
  {
    const DescriptorLimit few(256);
    daemon.emplace();
  }
  const MediaService mediaService;
  std::ofstream(directory() / "song.mp3") << "la la la";
  UsbClient held;
  held->RegisterUsbAddedCallBack(7, 1);

  IdleCrowd crowd;
  // All but the reserve are taken, one of them by the first client.
  expectConnections(*daemon, 256 - 64);
  EXPECT_THAT(held.devices(), IsEmpty());
  EXPECT_THAT(held.files(1, directory(), "mp3"), ElementsAre("song.mp3"));
  held->NotifyUsbXriteAdded();
  EXPECT_THAT(mediaService.callbacks(), ElementsAre(Callback{"added", -1, 7, 1}));
  EXPECT_THAT(daemon->log(), Not(HasSubstr("failed")));
  EXPECT_THAT(daemon->log(), Not(HasSubstr(shortage)));

  auto late = std::async(std::launch::async, [] { return UsbClient()->IsDeviceOpen(1); });
  crowd.leave();
  EXPECT_FALSE(late.get());
  // The client's connection, and the daemon's to the media service.
  expectConnections(*daemon, 2);
  expectSound(*daemon);
}

}  // namespace
}  // namespace hostiletest
