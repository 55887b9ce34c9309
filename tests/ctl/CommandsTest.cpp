// The commands that change something.

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thrift/TApplicationException.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "ArgumentVector.h"
#include "CtlTest.h"
#include "Emulator.h"
#include "MediaService.h"

namespace ctltest {
namespace {

using testsupport::Callback;
using testsupport::MediaService;

class Commands : public CtlTest {
 protected:
  static void expectLogged(const std::string& line) {
    EXPECT_THAT(journal().logs(), Contains(HasSubstr(line)));
  }

  /// The service keeps its connection to a media service that is gone; the first call over it fails.
  static void dropConnectionToMediaService() {
    UsbClient connection;
    connection->RegisterUsbAddedCallBack(7, 0);
    EXPECT_THROW(connection->NotifyUsbXriteAdded(), apache::thrift::TApplicationException);
    connection->DeregisterUsbAddedCallBack(7, 0);
  }
};

TEST_F(Commands, OpenMountsAtTheDefaultDirectory) {
  plugInStick();
  EXPECT_THAT(run({"open", "1"}), Ends(0, "device 1 is open at /media/disk_1\n", ""));
  expectLogged("OpenDeviceAt(1, /media/disk_1, isPvrDevice=0)");
}

TEST_F(Commands, OpenMountsAtAGivenDirectory) {
  plugInStick();
  EXPECT_THAT(run({"open", "1", "--at", "/media/my disk"}),
              Ends(0, "device 1 is open at /media/my disk\n", ""));
  expectLogged("OpenDeviceAt(1, /media/my disk, isPvrDevice=0)");
  run({"close", "1"});
  run({"open", "1", "--at", "/media/pvr", "--pvr"});
  expectLogged("OpenDeviceAt(1, /media/pvr, isPvrDevice=1)");
  EXPECT_THAT(run({"open", "1", "--at", "media"}), Ends(2, "", HasSubstr("absolute")));
}

TEST_F(Commands, OpenGivesTheDaemonAPathThatItFindsInTheMountTable) {
  plugInStick();
  const std::string folder = std::filesystem::canonical(service().sockets.path()) / "places";
  std::filesystem::create_directories(folder + "/old place");
  std::filesystem::create_directory_symlink(folder, folder + "/link");
  const std::vector<std::pair<std::string, std::string>> spellings = {
      {folder + "/new", "/new"},
      {folder + "/new/", "/new"},
      {folder + "//new///", "/new"},
      {folder + "/./new", "/new"},
      {folder + "/link/new", "/new"},
      {folder + "/link/../places/new", "/new"},
      {folder + "/old place/", "/old place"},
      {folder + "/link/old place", "/old place"},
  };
  for (const auto& [spelling, place] : spellings) {
    EXPECT_THAT(run({"open", "1", "--at", spelling}),
                Ends(0, "device 1 is open at " + folder + place + "\n", ""));
    EXPECT_THAT(run({"close", "1"}), Ends(0, "device 1 is closed\n", "")) << spelling;
  }
}

TEST_F(Commands, OpenRefusesADirectoryWhereItCouldNotBeClosed) {
  plugInStick();
  const std::string folder = std::filesystem::canonical(service().sockets.path()) / "refused";
  std::filesystem::create_directories(folder + "/tab\there");
  std::filesystem::create_directory_symlink(folder + "/tab\there", folder + "/link");
  std::filesystem::create_directory_symlink("loop", folder + "/loop");
  std::string deep = folder;
  for (int i = 0; i < 5; ++i) {
    std::filesystem::create_directory(deep.append("/" + std::string(250, 'd')));
  }
  const std::vector<std::pair<std::string, std::string>> paths = {
      {folder + "/tab\t", "tab\\x09\" contains a tab, a newline or a backslash"},
      {folder + "/line\n", "line\\x0A\" contains a tab, a newline or a backslash"},
      {folder + "/back\\slash", "back\\\\slash\" contains a tab, a newline or a backslash"},
      {folder + "/link", "tab\\x09here\" contains a tab, a newline or a backslash"},
      {folder + "/link/new", "tab\\x09here/new\" contains a tab, a newline or a backslash"},
      {"//", "\"/\" is the root directory"},
      {deep, "is too long"},
      {folder + "/loop", "cannot be resolved: Too many levels"},
      {folder + "/missing/new", "cannot be resolved: No such file"},
  };
  for (const auto& [path, reason] : paths) {
    if (path == "//" && isEmulated()) {
      continue;  // QEMU takes the root directory for the one of the emulated system.
    }
    EXPECT_THAT(run({"open", "1", "--at", path}),
                Ends(1, "", AllOf(StartsWith("dockhandctl: device 1: not opened: \""), HasSubstr(reason))));
  }
  EXPECT_THAT(journal().logs(), Not(Contains(HasSubstr("OpenDeviceAt"))));
}

TEST_F(Commands, OpenAtAnotherDirectoryNeedsAnOption) {
  plugInStick();
  run({"open", "1"});
  EXPECT_THAT(run({"open", "1"}), Ends(0, "device 1 is open at /media/disk_1\n", ""));
  EXPECT_THAT(
      run({"open", "1", "--at", "/media/other"}),
      Ends(1, "",
           "dockhandctl: device 1: not opened: it is open at \"/media/disk_1\"; close it first (dockhandctl "
           "close 1), or give --again to mount it at \"/media/other\" too\n"));
  EXPECT_THAT(
      run({"open", "1", "--at", "/media/other", "--again"}),
      Ends(0, "device 1 is open at /media/other; it is mounted at \"/media/disk_1\", \"/media/other\"\n",
           ""));
  EXPECT_THAT(run({"open", "1"}), Ends(1, "", HasSubstr("it is open at \"/media/other\"")));
}

TEST_F(Commands, OpenSaysWhenNothingIsMounted) {
  plugInStick();
  setMountError(EINVAL);
  EXPECT_THAT(
      run({"open", "1"}),
      Ends(1, "",
           "dockhandctl: device 1: counts as open, but nothing is mounted at \"/media/disk_1\": its file "
           "system is vfat; close it (dockhandctl close 1), and see dockhand's log\n"));
  world().addNode("sda1", "/dev/null");
  EXPECT_THAT(run({"open", "1", "--at", "/media/a"}),
              Ends(1, "", HasSubstr("it is open at \"/media/disk_1\"")));
  EXPECT_THAT(run({"open", "1"}),
              Ends(1, "", HasSubstr("nothing is mounted at \"/media/disk_1\": no file system")));
  world().mount("sda1", "/elsewhere");
  EXPECT_THAT(run({"open", "1"}), Ends(1, "", HasSubstr(": it is mounted at \"/elsewhere\"; close it")));
}

TEST_F(Commands, SeeWhatIsMountedForTheDaemonAlone) {
  plugInStick();
  setMountError(EINVAL);
  world().mountForTheServiceAlone("sda1", "/mnt/usb");
  EXPECT_THAT(run({"open", "1", "--at", "/mnt/usb"}),
              Ends(1, "",
                   "dockhandctl: device 1: counts as open, but is mounted at \"/mnt/usb\" (for dockhand "
                   "alone); close it (dockhandctl close 1) and choose a directory below /media\n"));
  EXPECT_THAT(
      run({"close", "1"}),
      Ends(1, "", HasSubstr("closed, but still mounted at \"/mnt/usb\" (for dockhand alone); unmount")));
  EXPECT_THAT(run({"info", "1"}),
              Ends(1, HasSubstr("Mounted at:   \"/mnt/usb\" (for dockhand alone)\n"),
                   HasSubstr("not open, but mounted at \"/mnt/usb\" (for dockhand alone)")));
}

TEST_F(Commands, OpenReportsWhyItFails) {
  EXPECT_THAT(run({"open", "1"}), Ends(3, "", HasSubstr("device 1: no such device; there is none")));
  plugInStick();
  setMountError(ENODEV);
  EXPECT_THAT(run({"open", "1"}),
              Ends(1, "", HasSubstr("device 1: not opened: its file system cannot be mounted")));
  setMountError(0);
  run({"open", "1"});
  run({"close", "1", "--safe"});
  EXPECT_THAT(
      run({"open", "1"}),
      Ends(1, "",
           "dockhandctl: device 1: not opened: it was closed for safe removal; pull it out and plug it in "
           "again\n"));
}

TEST_F(Commands, CloseUnmounts) {
  plugInStick();
  run({"open", "1"});
  EXPECT_THAT(run({"close", "1"}), Ends(0, "device 1 is closed\n", ""));
  EXPECT_THAT(run({"list"}), Ends(0, "1\n", ""));
  run({"open", "1"});
  EXPECT_THAT(run({"close", "1", "--safe"}), Ends(0, "device 1 may be pulled out\n", ""));
  EXPECT_THAT(run({"list"}), Ends(0, "", ""));
}

TEST_F(Commands, CloseSaysWhatIsStillMounted) {
  plugInStick();
  run({"open", "1"});
  // Its line is beyond the part of the table that the daemon reads.
  platform().files["/proc/mounts"] = "";
  EXPECT_THAT(
      run({"close", "1"}),
      Ends(
          1, "",
          "dockhandctl: device 1: closed, but still mounted at \"/media/disk_1\"; unmount it (umount) before "
          "it is pulled out\n"));
  EXPECT_THAT(run({"close", "1"}), Ends(1, "",
                                        "dockhandctl: device 1: not closed: not open, but mounted at "
                                        "\"/media/disk_1\"; unmount it (umount) "
                                        "before it is pulled out\n"));
}

TEST_F(Commands, SafeRemovalClosesTheWholeDisk) {
  plugInStick();
  world().mount("sda2", "/mnt/second");
  run({"open", "1"});
  EXPECT_THAT(run({"close", "1"}), Ends(0, "device 1 is closed\n", ""));
  run({"open", "1"});
  EXPECT_THAT(run({"close", "1", "--safe"}), Ends(1, "",
                                                  "dockhandctl: device 1: closed, but its disk is still "
                                                  "mounted at \"/mnt/second\"; unmount it (umount) "
                                                  "before it is pulled out\n"));
}

TEST_F(Commands, CloseReportsWhyItFails) {
  EXPECT_THAT(run({"close", "1"}), Ends(3, "", HasSubstr("device 1: no such device")));
  plugInStick();
  EXPECT_THAT(run({"close", "1"}), Ends(1, "", "dockhandctl: device 1: not closed: it is not open\n"));
  run({"open", "1"});
  platform().umount2Error = EBUSY;
  EXPECT_THAT(
      run({"close", "1"}),
      Ends(1, "",
           HasSubstr("device 1: not closed: \"/media/disk_1\" cannot be unmounted; no visible process")));
}

/// A process that does something and stays until this object is destroyed.
class Holding {
 public:
  template <class Action>
  explicit Holding(Action action) : pid_(fork()) {
    if (pid_ == 0) {
      _exit(action() && raise(SIGSTOP) == 0 ? 0 : 1);
    }
    int status = 0;
    if (waitpid(pid_, &status, WUNTRACED) != pid_ || !WIFSTOPPED(status)) {
      throw std::runtime_error("the process cannot do that");
    }
  }
  explicit Holding(const std::string& program) {
    std::vector<std::string> words = {"sleep", "1000"};
    if (posix_spawn(&pid_, program.c_str(), nullptr, nullptr, argumentVector(words).data(), environ) != 0) {
      throw std::runtime_error("the program cannot be started");
    }
  }
  Holding(const Holding&) = delete;
  Holding& operator=(const Holding&) = delete;
  ~Holding() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }

  std::string name() const { return "\n  process " + std::to_string(pid_) + " ("; }

 private:
  pid_t pid_ = -1;
};

TEST_F(Commands, CloseNamesWhoHoldsTheStick) {
  const std::string stick = std::filesystem::canonical(service().sockets.path()) / "held";
  const std::string file = stick + "/a\tfile";
  std::filesystem::create_directory(stick);
  std::ofstream(file) << "content";
  std::ofstream(stick + "er") << "beside it";
  plugInStick();
  ASSERT_THAT(run({"open", "1", "--at", stick}), Ends(0, HasSubstr("is open"), ""));
  platform().umount2Error = EBUSY;

  const auto openFile = [](const std::string& path) { return open(path.c_str(), O_RDONLY | O_CLOEXEC); };
  const Holding directory([&] { return chdir(stick.c_str()) == 0; });
  const Holding reader([&] { return openFile(file) >= 0; });
  const Holding mapping([&] {
    const int descriptor = openFile(file);
    return mmap(nullptr, 1, PROT_READ, MAP_PRIVATE, descriptor, 0) != MAP_FAILED && ::close(descriptor) == 0;
  });
  const Holding beside([&] { return openFile(stick + "er") >= 0; });
  const Outcome outcome = run({"close", "1"});
  EXPECT_THAT(outcome,
              Ends(1, "", HasSubstr("device 1: not closed: \"" + stick + "\" is in use; end these")));
  EXPECT_THAT(outcome.err, HasSubstr(directory.name()));
  EXPECT_THAT(outcome.err, HasSubstr("working directory \"" + stick + "\"\n"));
  EXPECT_THAT(outcome.err, HasSubstr(reader.name()));
  EXPECT_THAT(outcome.err, HasSubstr("open file \"" + stick + "/a\\x09file\"\n"));
  EXPECT_THAT(outcome.err, HasSubstr(mapping.name()));
  EXPECT_THAT(outcome.err, HasSubstr("mapped file \"" + stick + "/a\\x09file\"\n"));
  EXPECT_THAT(outcome.err, Not(HasSubstr(beside.name())));

  const std::string program = stick + "/sleep";
  std::filesystem::copy_file("/bin/sleep", program);
  if (isEmulated()) {
    return;  // A program under QEMU cannot start one for another processor.
  }
  const Holding sleeper(program);
  EXPECT_THAT(run({"close", "1"}).err, HasSubstr(sleeper.name() + "sleep): program \"" + program + "\"\n"));
}

TEST_F(Commands, CloseSaysThatItMayNotReadOtherUsersProcesses) {
  if (getuid() != 0) {
    GTEST_SKIP() << "only root can become another user";
  }
  plugInStick();
  const std::string folder = service().sockets.path();
  const std::string stick = std::filesystem::canonical(folder) / "hidden";
  std::filesystem::create_directory(stick);
  run({"open", "1", "--at", stick});
  platform().umount2Error = EBUSY;
  const Holding root([&] { return chroot(stick.c_str()) == 0; });
  EXPECT_THAT(run({"close", "1"}).err,
              AllOf(HasSubstr(root.name()), HasSubstr("root directory \"" + stick + "\"\n")));
  std::filesystem::permissions(folder, std::filesystem::perms(0755));
  std::filesystem::permissions(socketOf(9020), std::filesystem::perms(0666));
  RunOptions asNobody;
  asNobody.asNobody = true;
  EXPECT_THAT(
      run({"close", "1"}, asNobody),
      Ends(1, "", AllOf(HasSubstr("cannot be unmounted; no visible process"), HasSubstr("run as root"))));
  std::filesystem::permissions(socketOf(9020), std::filesystem::perms(0660));
  std::filesystem::permissions(folder, std::filesystem::perms(0700));
}

TEST_F(Commands, RescanFindsNewDevices) {
  platform().deviceNodes = {"usb_storage_sda1"};
  EXPECT_THAT(run({"rescan"}), Ends(0, "", ""));
  ravel::rpc::ReturnValueWithString name;
  UsbClient connection;
  connection->GetUsbPhysicalDevice(name, 1);
  EXPECT_EQ(name.text, "sda1");
}

TEST_F(Commands, NotifyAnnouncesPlugEvents) {
  plugInStick();
  EXPECT_THAT(run({"notify", "added", "sda1"}), Ends(0, "", ""));
  expectLogged("NotifyUSB added sda1");
  EXPECT_THAT(run({"notify", "removed", "sda1"}), Ends(0, "", ""));
  expectLogged("NotifyUsbRemoved(sda1)");
  EXPECT_THAT(run({"notify", "xrite-added"}), Ends(0, "", ""));
  expectLogged("Xrite device inserted");
  EXPECT_THAT(run({"notify", "xrite-removed"}), Ends(0, "", ""));
  expectLogged("Xrite device removed");
}

TEST_F(Commands, NotifyTakesANameWhereThereIsOne) {
  EXPECT_THAT(run({"notify", "added"}), Ends(2, "", HasSubstr("needs the kernel NAME")));
  EXPECT_THAT(run({"notify", "xrite-added", "sda1"}), Ends(2, "", HasSubstr("takes no NAME")));
  EXPECT_THAT(run({"notify", "lost", "sda1"}), Ends(2, "", HasSubstr("lost")));
}

TEST_F(Commands, NotifyReportsObserversThatCannotBeReached) {
  plugInStick();
  run({"observer", "add", "added", "3", "42"});
  EXPECT_THAT(run({"notify", "added", "sda1"}),
              Ends(5, "", HasSubstr("added sda1: not all observers were told")));
  run({"observer", "remove", "added", "3"});
}

TEST_F(Commands, ObserverRegistersAndDeregisters) {
  {
    const MediaService mediaService;
    EXPECT_THAT(run({"observer", "add", "added", "7", "-2"}), Ends(0, "", ""));
    EXPECT_THAT(run({"observer", "add", "removed", "7"}), Ends(0, "", ""));
    run({"notify", "xrite-added"});
    run({"notify", "xrite-removed"});
    EXPECT_THAT(run({"observer", "remove", "added", "7"}), Ends(0, "", ""));
    EXPECT_THAT(run({"observer", "remove", "removed", "7", "5"}), Ends(0, "", ""));
    run({"notify", "xrite-added"});
    run({"notify", "xrite-removed"});
    EXPECT_THAT(mediaService.callbacks(),
                ElementsAre(Callback{"added", -1, 7, -2}, Callback{"removed", -1, 7, 0}));
  }
  dropConnectionToMediaService();
}

TEST_F(Commands, ObserverTakesNumbersOfEightBits) {
  EXPECT_THAT(run({"observer", "add", "added", "-128"}), Ends(0, "", ""));
  expectLogged("observerId -128 ");
  EXPECT_THAT(run({"observer", "remove", "added", "-128"}), Ends(0, "", ""));
  EXPECT_THAT(run({"observer", "add", "added", "128"}), Ends(2, "", Not(IsEmpty())));
  EXPECT_THAT(run({"observer", "drop", "added", "1"}), Ends(2, "", HasSubstr("drop")));
}

}  // namespace
}  // namespace ctltest
