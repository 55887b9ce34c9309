// The daemon is killed at random moments of the operations that change disks and mounts. The next daemon
// replies, finds the disks and opens them, and all synced data is still there.

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "Kills.h"
#include "SystemTest.h"

namespace systest {
namespace {

namespace fs = std::filesystem;

/// How often an operation runs to its end, to measure its duration.
constexpr int measurements = 5;

const Call opening = {[](UsbClient& client) { client->send_OpenDevice(1); },
                      [](UsbClient& client) { return client->recv_OpenDevice(); }};
const Call closing = {[](UsbClient& client) { client->send_CloseDevice(1); },
                      [](UsbClient& client) { return client->recv_CloseDevice(); }};
const Call removing = {[](UsbClient& client) { client->send_CloseDeviceSafeRemoval(1); },
                       [](UsbClient& client) { return client->recv_CloseDeviceSafeRemoval(); }};
const Call preparing = {[](UsbClient& client) { client->send_PrepareDeviceForPvr(1); },
                        [](UsbClient& client) { return client->recv_PrepareDeviceForPvr(); }};
const Call repairing = {[](UsbClient& client) { client->send_RunDiskRepair(1); },
                        [](UsbClient& client) { return client->recv_RunDiskRepair(); }};

/// All log lines are on, to show where the daemon was.
Environment environmentOfImage() {
  Environment environment = withImageTools();
  environment["TLOG_LEVEL"] = "2";
  return environment;
}

/// Writes a file and syncs it to the disk.
void writeSynced(const std::string& path, const std::string& text) {
  writeFile(path, text);
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  const bool synced = file >= 0 && fsync(file) == 0;
  close(file);
  if (!synced) {
    throw std::runtime_error(path + ": " + std::strerror(errno));
  }
}

std::string contentOf(int number) {
  return "synced " + std::to_string(number) + std::string(5000, static_cast<char>('a' + number % 26));
}

constexpr int filesOfADisk = 10;

void writeSyncedFiles(const std::string& directory) {
  for (int number = 0; number < filesOfADisk; ++number) {
    writeSynced(directory + "/synced" + std::to_string(number), contentOf(number));
  }
}

void expectSyncedFiles(const std::string& directory) {
  for (int number = 0; number < filesOfADisk; ++number) {
    const std::string path = directory + "/synced" + std::to_string(number);
    EXPECT_TRUE(fs::exists(path) && readFile(path) == contentOf(number)) << path;
  }
}

class KillTest : public SystemTest {
 protected:
  /// Opens a device, compares its files, closes it, and checks its file system.
  static void expectOpensWithItsFiles(UsbClient& client, std::int16_t device, const Stick& stick) {
    const std::string directory = "/media/disk_" + std::to_string(device);
    EXPECT_FALSE(client->IsDeviceOpen(device));
    EXPECT_TRUE(client->OpenDevice(device));
    ASSERT_EQ(mountsAt(directory).size(), 1U);
    expectSyncedFiles(directory);
    EXPECT_TRUE(client->CloseDevice(device));
    EXPECT_THAT(mountsAt(directory), IsEmpty());
    EXPECT_FALSE(fs::exists(directory));
    // Its exit status is not 0 if it finds an error.
    EXPECT_NO_THROW(run({"e2fsck", "-f", "-n", stick.node()}));
  }

  using Action = std::function<void(UsbClient&)>;
  /// What a test does around its calls, each time on a new stick.
  struct Plan {
    StickOptions stick;
    Action before;
    std::vector<Call> calls;
    Action afterReply;
    /// With the daemon that is started after a kill.
    std::function<void(const Kills&, UsbClient&, const Stick&, const Daemon&)> afterKill;
  };

  static void measureAndKill(const std::string& operation, const Plan& plan) {
    Kills kills(operation);
    std::optional<Daemon> daemon;
    for (int i = 0; i < measurements; ++i) {
      const Stick stick(plan.stick);
      kills.start(daemon, environmentOfImage());
      UsbClient client;
      plan.before(client);
      ASSERT_TRUE(kills.measure(client, plan.calls[0]));
      plan.afterReply(client);
      daemon.reset();
    }
    for (std::size_t i = 0; kills.before() < Kills::wanted() && !HasFailure(); ++i) {
      const Stick stick(plan.stick);
      {
        kills.start(daemon, environmentOfImage());
        UsbClient client;
        plan.before(client);
        kills.kill(*daemon, client, plan.calls[i % plan.calls.size()]);
      }
      kills.start(daemon, environmentOfImage());
      SCOPED_TRACE(kills.description());
      UsbClient client;
      plan.afterKill(kills, client, stick, *daemon);
      daemon.reset();
    }
    kills.print();
  }

  static void expectOnlyStickOpensWithItsFiles(const Kills& /*kills*/, UsbClient& client, const Stick& stick,
                                               const Daemon& /*daemon*/) {
    EXPECT_THAT(client.devices(), ElementsAre(1));
    expectOpensWithItsFiles(client, 1, stick);
  }
};

/// A disk with files, whose journal must be replayed at the next mount.
std::string imagePulledOutWhileMounted() {
  const std::string image = "/tmp/pulled.img";
  const Stick stick({});
  mkdir("/media/first", 0755);
  if (mount(stick.node().c_str(), "/media/first", "ext3", 0, "") != 0) {
    throw std::runtime_error(std::string("mount: ") + std::strerror(errno));
  }
  writeSyncedFiles("/media/first");
  run({"cp", "--sparse=always", stick.image(), image});
  umount("/media/first");
  rmdir("/media/first");
  return image;
}

TEST_F(KillTest, OpeningLosesNoSyncedFile) {
  measureAndKill("open", {copyOf(imagePulledOutWhileMounted()),
                          [](UsbClient&) {},
                          {opening},
                          [](UsbClient& client) { EXPECT_TRUE(client->CloseDevice(1)); },
                          expectOnlyStickOpensWithItsFiles});
}

TEST_F(KillTest, ClosingLosesNoSyncedFile) {
  const auto openAndWrite = [](UsbClient& client) {
    EXPECT_TRUE(client->OpenDevice(1));
    writeSyncedFiles("/media/disk_1");
    // Unsynced data, so that closing has something to write.
    writeFile("/media/disk_1/unsynced", std::string(std::size_t{4} << 20, 'u'));
  };
  measureAndKill(
      "close", {{}, openAndWrite, {closing, removing}, [](UsbClient&) {}, expectOnlyStickOpensWithItsFiles});
}

/// The time from the beginning of the preparation to the start of a tool, from the daemon's log lines.
Duration startOfTool(const Daemon& daemon, const std::string& tool) {
  const auto timeOf = [](const std::string& line) {
    // 2026-11-21T16:04:22.123456Z
    std::istringstream text(line.substr(line.find('T') + 1));
    char colon = ' ';
    double hours = 0;
    double minutes = 0;
    double seconds = 0;
    text >> hours >> colon >> minutes >> colon >> seconds;
    return Duration(1000 * (seconds + 60 * (minutes + 60 * hours)));
  };
  Duration begin(-1);
  for (const std::string& line : daemon.logLines()) {
    if (line.find(" PrepareDeviceForPvr(1)") != std::string::npos) {
      begin = timeOf(line);
    }
    if (line.find(" Executing: " + tool) != std::string::npos && begin >= Duration(0)) {
      const Duration passed = timeOf(line) - begin;
      // The parsed times have no date, so midnight may be in between.
      return passed < Duration(0) ? passed + std::chrono::hours(24) : passed;
    }
  }
  throw std::runtime_error("no line of " + tool + ": " + daemon.log());
}

TEST_F(KillTest, PreparingLosesNothingOnAnotherDiskAndCanBeRepeated) {
  constexpr std::size_t killsToAPreparation = 10;
  StickOptions recorder;
  recorder.bytes = enoughForXfs;
  recorder.partitioned = true;
  const Stick stick(recorder);
  StickOptions holiday;
  holiday.kernelName = "sdb";
  const Stick other(holiday);

  Kills kills("prepare");
  std::optional<Daemon> daemon;
  kills.start(daemon, environmentOfImage());
  {
    UsbClient client;
    ASSERT_TRUE(client->OpenDevice(2));
    writeSyncedFiles("/media/disk_2");
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_TRUE(kills.measure(client, preparing)) << daemon->log();
    const Duration end = std::chrono::steady_clock::now() - begin;
    // Do not kill in the two pauses, because nothing happens there.
    const Duration pauseBefore(4000);
    const Duration pauseAfter(2000);
    const Duration formatting = startOfTool(*daemon, "mkfs.xfs");
    kills.setParts({{Duration(0), formatting - pauseBefore}, {formatting, end - pauseAfter}});
    daemon.reset();
  }
  for (std::size_t i = 0; kills.before() < Kills::wanted() && !HasFailure(); ++i) {
    {
      kills.start(daemon, environmentOfImage());
      UsbClient client;
      EXPECT_TRUE(client->OpenDevice(2));
      kills.kill(*daemon, client, preparing);
    }
    EXPECT_EQ(mountsAt("/media/disk_2").size(), 1U);
    kills.start(daemon, environmentOfImage());
    SCOPED_TRACE(kills.description());
    UsbClient client;
    EXPECT_THAT(client.devices(), ElementsAre(1, 2));
    expectOpensWithItsFiles(client, 2, other);
    kills.waitForTools();
    if (kills.before() == Kills::wanted() || (i + 1) % killsToAPreparation == 0) {
      EXPECT_TRUE(client->PrepareDeviceForPvr(1)) << daemon->log();
      EXPECT_EQ(run({"blkid", "--probe", "--output", "value", "--match-tag", "TYPE", stick.node()}), "xfs\n");
    }
    daemon.reset();
  }
  kills.print();
}

/// A recording disk with files, without the headers of its second allocation group, so that a repair has
/// work.
std::string damagedRecordingImage() {
  std::map<std::string, std::string> files;
  for (int number = 0; number < filesOfADisk; ++number) {
    files["synced" + std::to_string(number)] = contentOf(number);
  }
  const std::string image = recordingImage(files);
  overwrite(image, superblockValue(image, "agblocks") * superblockValue(image, "blocksize"),
            std::string(2048, '\0'));
  return image;
}

TEST_F(KillTest, RepairingLosesNoFileAndCanBeRepeated) {
  StickOptions holiday;
  holiday.kernelName = "sdb";
  const Stick other(holiday);
  const auto openOther = [](UsbClient& client) {
    EXPECT_TRUE(client->OpenDevice(2));
    if (!fs::exists("/media/disk_2/synced0")) {
      writeSyncedFiles("/media/disk_2");
    }
  };
  const auto expectRepair = [&other](const Kills& kills, UsbClient& client, const Stick& stick,
                                     const Daemon& daemon) {
    EXPECT_THAT(client.devices(), ElementsAre(1, 2));
    expectOpensWithItsFiles(client, 2, other);
    // Wait for tools that still use the disk.
    kills.waitForTools();
    EXPECT_TRUE(client->RunDiskRepair(1)) << daemon.log();
    EXPECT_THAT(mountsAt("/media/disk_tmp"), IsEmpty());
    EXPECT_FALSE(fs::exists("/media/disk_tmp"));
    EXPECT_NO_THROW(run({"xfs_repair", "-n", stick.node()}));
    lookInto(stick, [] { expectSyncedFiles("/media/look"); });
  };
  measureAndKill("repair",
                 {copyOf(damagedRecordingImage()), openOther, {repairing}, [](UsbClient&) {}, expectRepair});
}

}  // namespace
}  // namespace systest
