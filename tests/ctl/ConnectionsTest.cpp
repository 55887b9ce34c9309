// A connection occupies one of the daemon's ten workers, so dockhandctl keeps none that it does not use.

#include <filesystem>

#include "CtlTest.h"
#include "Eventually.h"

namespace ctltest {
namespace {

namespace fs = std::filesystem;

/// True if the program runs and none of its descriptors is a socket. False also while it changes them.
bool livesWithoutConnection(const Program& program) {
  bool lives = false;
  std::error_code gone;
  for (const auto& descriptor :
       fs::directory_iterator("/proc/" + std::to_string(program.pid()) + "/fd", gone)) {
    lives = true;
    const std::string target = fs::read_symlink(descriptor, gone);
    if (gone || target.rfind("socket:", 0) == 0) {
      return false;
    }
  }
  return lives && !gone;
}

using testsupport::eventually;

class Connections : public CtlTest {
 protected:
  Connections() {
    plugInStick();
    platform().directories["/media/disk_1/"] = {"a.mp3"};
    stoppedTerminal_.terminal = true;
    stoppedTerminal_.stopped = true;
  }

  /// Expects that the command has called the daemon and waits for its terminal without a connection.
  void expectNoneWhilePrinting(const Arguments& command) {
    journal().clear();
    const Program program(command, stoppedTerminal_);
    ASSERT_TRUE(eventually([] { return !journal().logs().empty(); })) << command[0];
    ASSERT_TRUE(eventually([&program] { return livesWithoutConnection(program); })) << command[0];
  }

 private:
  RunOptions stoppedTerminal_;
};

TEST_F(Connections, EndBeforeTheResultIsPrinted) {
  run({"open", "1"});
  for (const Arguments& command : std::vector<Arguments>{{"status"},
                                                         {"list"},
                                                         {"info", "1"},
                                                         {"label", "1"},
                                                         {"uuid", "1"},
                                                         {"usb-version", "1"},
                                                         {"type", "1"},
                                                         {"capacity", "1"},
                                                         {"mount-point", "1"},
                                                         {"kernel-name", "1"},
                                                         {"is-open", "1"},
                                                         {"files", "1", "", "mp3"},
                                                         {"call", "GetDeviceLabel", "1"},
                                                         {"open", "1"},
                                                         {"close", "1"},
                                                         {"prepare", "1", "--yes"}}) {
    ASSERT_NO_FATAL_FAILURE(expectNoneWhilePrinting(command));
  }
}

TEST_F(Connections, EndBeforeAComplaintIsPrinted) {
  setMountError(ENODEV);
  for (const Arguments& command : std::vector<Arguments>{{"open", "1"},
                                                         {"close", "1"},
                                                         {"mount-point", "1"},
                                                         {"files", "1", "", "mp3"},
                                                         {"repair", "1"},
                                                         {"label", "7"}}) {
    ASSERT_NO_FATAL_FAILURE(expectNoneWhilePrinting(command));
  }
}

TEST_F(Connections, EndBeforeARepairIsReported) {
  platform().disks["/dev/usb_storage_sda1"].values["TYPE"] = "xfs";
  expectNoneWhilePrinting({"repair", "1"});
}

}  // namespace
}  // namespace ctltest
