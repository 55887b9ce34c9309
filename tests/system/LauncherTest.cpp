// The image's launcher, with a short and a long mount table and with users' mounts. Root makes the mounts
// that a user would make with fusermount.

#include <cstdlib>
#include <string>
#include <vector>

#include "SystemTest.h"

namespace systest {
namespace {

// Functions of the system and of the launched program, which is the system's child.
const std::string commands = R"sh(
  on_system() { nsenter --target $PPID --mount "$@"; }
  stick() { mkdir -p "$1"; mount -t tmpfs stick "$1"; }
  # How often something is mounted there, in the caller's table, and in the part of it that the daemon reads.
  count() { echo "$1 $(grep -c " $1 " /proc/self/mounts)" || true; }
  count_first() { echo "$1 $(head -c 1024 /proc/self/mounts | grep -c " $1 ")" || true; }
  whose() {
    if [ "$(readlink /proc/self/ns/mnt)" = "$(readlink /proc/$PPID/ns/mnt)" ]; then echo system; else echo own; fi
  }
)sh";

// Users may not mount, and the mount table is short.
const std::string system = R"sh(
  mount -t tmpfs etc /etc; echo '/dev/sda1 /data ext4 noatime,nouser 0 0' >/etc/fstab
  mount -t tmpfs -o mode=755 mnt /mnt
  mount -t tmpfs sbin /usr/local/sbin
  for tool in /usr/bin/fusermount3 /usr/local/bin/fusermount3; do
    if test -u $tool; then mount --bind /dev/null $tool; fi
  done
  long_table() { for n in $(seq 20); do mkdir -p /tmp/filler$n; mount -t tmpfs filler /tmp/filler$n; done; }
  launch() { "$LAUNCHER" sh -ec "$COMMANDS $1"; }
)sh";

class LauncherTest : public SystemTest {
 protected:
  void SetUp() override {
    SystemTest::SetUp();
    setenv("COMMANDS", commands.c_str(), 1);
    setenv("LAUNCHER", DOCKHAND_LAUNCHER, 1);
  }

  /// Runs a script in a copy of the world's mounts and returns what it wrote.
  static std::string inSystem(const std::string& script) {
    return run({"unshare", "--mount", "--propagation", "private", "sh", "-ec", commands + system + script});
  }
};

TEST_F(LauncherTest, NamespaceIsChosenByTheTableAndByWhetherUsersMayMount) {
  struct Row {
    const char* description;
    const char* preparation;
    const char* whose;
    const char* reason;
  };
  const std::vector<Row> rows = {
      {"short table", "", "system", " bytes and users may not mount"},
      {"long table", "long_table", "own", " bytes, more than 700"},
      {"setuid fusermount", "touch /usr/local/sbin/fusermount; chmod 4755 /usr/local/sbin/fusermount", "own",
       "users may mount (/usr/local/sbin/fusermount)"},
      {"setuid fusermount3", "touch /usr/local/sbin/fusermount3; chmod 4755 /usr/local/sbin/fusermount3",
       "own", "users may mount (/usr/local/sbin/fusermount3)"},
      {"fusermount for root", "touch /usr/local/sbin/fusermount; chmod 755 /usr/local/sbin/fusermount",
       "system", " bytes and users may not mount"},
      {"fstab", "echo '/dev/sdb1 /data vfat noauto,user=tv 0 0' >>/etc/fstab", "own",
       "option user=tv in /etc/fstab"},
      {"fstab", "echo '/dev/sdb1 /data vfat users 0 0' >>/etc/fstab", "own", "option users in /etc/fstab"},
      {"fstab", "echo '/dev/sdb1 /data vfat rw,owner 0 0' >>/etc/fstab", "own", "option owner in /etc/fstab"},
      {"fstab", "echo '/dev/sdb1 /data vfat group,rw 0 0' >>/etc/fstab", "own", "option group in /etc/fstab"},
      {"no fstab", "rm /etc/fstab", "system", " bytes and users may not mount"},
      {"always", "export DOCKHAND_NAMESPACE=always", "own", "DOCKHAND_NAMESPACE=always"},
      {"never", "long_table; export DOCKHAND_NAMESPACE=never", "system", "DOCKHAND_NAMESPACE=never"},
      {"never", "long_table; export DOCKHAND_NAMESPACE=never", "system", "closing may not find its mounts"},
      {"bad value", "export DOCKHAND_NAMESPACE=Always", "system",
       "\"Always\", which is not auto, always or never"},
      {"bad value", "export DOCKHAND_NAMESPACE=; long_table", "own", "auto is used"},
  };
  for (const Row& row : rows) {
    const std::string said = inSystem(std::string(row.preparation) + "\nlaunch whose");
    EXPECT_THAT(said, AllOf(HasSubstr(row.reason), EndsWith(std::string("\n") + row.whose + "\n")))
        << row.description << ": " << row.preparation;
  }
}

TEST_F(LauncherTest, MountPolicyOfTheImageIsNamedUnlessTheVariableIsSet) {
  struct Row {
    const char* description;
    const char* preparation;
    const char* variable;
  };
  const std::vector<Row> rows = {
      {"no policy", "", "(unset)"},
      {"policy", "mkdir /etc/dockhand; touch /etc/dockhand/mounts", "/etc/dockhand/mounts"},
      {"link that leads nowhere", "mkdir /etc/dockhand; ln -s nowhere /etc/dockhand/mounts",
       "/etc/dockhand/mounts"},
      {"turned off", "mkdir /etc/dockhand; touch /etc/dockhand/mounts; export DOCKHAND_MOUNTS=", ""},
      {"another", "mkdir /etc/dockhand; touch /etc/dockhand/mounts; export DOCKHAND_MOUNTS=/a", "/a"},
      {"another without a policy", "export DOCKHAND_MOUNTS=/a", "/a"},
      {"policy on a mount of its own, from a namespace",
       "long_table; stick /opt; echo kept >/opt/policy; export DOCKHAND_MOUNTS=/opt/policy",
       "/opt/policy kept"},
  };
  for (const Row& row : rows) {
    const std::string said =
        inSystem(std::string(row.preparation) +
                 "\nlaunch 'echo \"[${DOCKHAND_MOUNTS-(unset)}$(sed \"s/^/ /\" /opt/policy 2>/dev/null)]\"'");
    EXPECT_THAT(said, EndsWith(std::string("\n[") + row.variable + "]\n")) << row.description;
  }
}

TEST_F(LauncherTest, UsersMountsWithOddNamesNeitherKeepTheDaemonFromStartingNorTakeItsDirectories) {
  // A name that ends in a newline. Next to it, the same name without the newline links to a directory that
  // the daemon needs.
  for (const char* beside : {"true", "ln -s /media", "ln -s /proc", "ln -s /dev", "ln -s /run"}) {
    const std::string said = inSystem("beside='" + std::string(beside) + R"sh('
      mount --make-rshared /
      long_table
      rm -rf /tmp/user; mkdir -m 777 /tmp/user
      stick '/tmp/user/name
'
      $beside /tmp/user/name
      stick '/tmp/user/a\012b \c'
      launch 'grep -c /tmp/user /proc/self/mounts || true
              ls -d /proc/self/ns /dev/null /run
              stick /media/disk_1'
      count /media
      count /media/disk_1
      grep -c /tmp/user /proc/self/mounts)sh");
    EXPECT_THAT(said, EndsWith("\n0\n/dev/null\n/proc/self/ns\n/run\n/media 1\n/media/disk_1 1\n2\n"))
        << beside;
  }
}

TEST_F(LauncherTest, UsersMountsPushNoStickOutOfTheTable) {
  const std::string said = inSystem(R"sh(
    touch /usr/local/sbin/fusermount; chmod 4755 /usr/local/sbin/fusermount
    export LONG=$(printf '%0250d/%0250d' 1 2)
    mount --make-rshared /
    launch 'on_system sh -ec "$COMMANDS stick /tmp/$LONG"
            stick /media/disk_1
            count_first /media/disk_1
            count /tmp/$LONG
            # A mount inside a stick must be in the table, because closing the stick must fail. Sticks that are opened
            # later come after it.
            on_system sh -ec "$COMMANDS stick /media/disk_1/$LONG/$LONG"
            stick /media/disk_2
            count_first /media/disk_1
            count_first /media/disk_2'
    umount -R /media/disk_1 /media/disk_2
    rmdir /media/disk_1 /media/disk_2)sh");
  EXPECT_THAT(said, HasSubstr("\n/media/disk_1 1\n"));
  EXPECT_THAT(said, HasSubstr("2 0\n/media/disk_1 1\n/media/disk_2 0\n"));
}

TEST_F(LauncherTest, MediaIsSharedBothWaysWhateverItIsOn) {
  for (const char* root : {"mount --make-rshared /", "mount --make-rprivate /"}) {
    for (const char* media : {"", "umount /media", "umount /media; mount -t tmpfs media /media"}) {
      const std::string said = inSystem(std::string(root) + "\n" + media + R"sh(
        long_table
        stick /media/before
        stick /media/kept
        stick /media/nested/inner
        stick /media/elsewhere
        launch 'stick /media/disk_1
                umount /media/before
                count /media/kept
                on_system sh -ec "$COMMANDS stick /media/theirs; umount /media/elsewhere"
                count /media/theirs
                count /media/elsewhere
                on_system sh -ec "$COMMANDS mkdir /media/disk_1/own; stick /media/disk_1/own; stick /media/kept/own"
                if umount /media/disk_1 2>&1 || umount /media/kept 2>&1; then echo unmounted; fi'
        for name in before kept theirs elsewhere disk_1; do count /media/$name; done
        umount /media/kept/own /media/disk_1/own
        umount /media/kept /media/disk_1 /media/theirs /media/nested/inner
        rmdir /media/kept /media/disk_1 /media/theirs /media/nested/inner /media/nested /media/before /media/elsewhere)sh");
      EXPECT_THAT(said, HasSubstr("\n/media/kept 1\n/media/theirs 1\n/media/elsewhere 0\n")) << root << media;
      EXPECT_THAT(said, Not(HasSubstr("unmounted"))) << root << media;
      EXPECT_THAT(said, EndsWith("\n/media/before 0\n/media/kept 1\n/media/theirs 1\n/media/elsewhere 0\n"
                                 "/media/disk_1 1\n"))
          << root << media;
    }
  }
}

TEST_F(LauncherTest, OfTheSystemOnlyWhatTheDaemonNeedsIsThereAndNothingIsTakenFromTheSystem) {
  const std::string said = inSystem(R"sh(
    long_table
    mkdir /mnt/var; mount -t tmpfs var /mnt/var; mkdir -p /mnt/var/tools /mnt/var/sockets
    mkdir /mnt/var/volatile; mount -t tmpfs volatile /mnt/var/volatile
    mount --make-rshared /
    cut -d ' ' -f 2 /proc/self/mounts >/run/before
    export PATH=$PATH:/mnt/var/tools RAVEL_SOCKET_DIR=/mnt/var/volatile/not/yet
    launch 'cut -d " " -f 2 /proc/self/mounts | sort | tr "\n" " "; pwd'
    cut -d ' ' -f 2 /proc/self/mounts | cmp - /run/before)sh");
  // There may be one more mount, if the sources are on their own file system.
  EXPECT_THAT(
      said,
      testing::ContainsRegex(
          "\n/ /dev /etc /media /mnt /mnt/var /mnt/var/volatile /proc /run /sys /tmp /usr/local/sbin /\n"));
}

TEST_F(LauncherTest, DirectoriesThatTheImageNamesAreShared) {
  const std::string said = inSystem(R"sh(
    mount --make-rshared /
    mkdir /mnt/rec /mnt/other; mount -t tmpfs -o mode=755 rec /mnt/rec
    export DOCKHAND_NAMESPACE=always DOCKHAND_SHARED=/mnt/rec/a/:/srv:/mnt/rec/b
    stick /mnt/rec/b
    mkdir /mnt/rec/a
    launch 'umount /mnt/rec/b; rmdir /mnt/rec/b
            # As the daemon opens and closes.
            rmdir /mnt/rec/a; stick /mnt/rec/a; umount /mnt/rec/a; rmdir /mnt/rec/a; stick /mnt/rec/a
            on_system sh -ec "$COMMANDS stick /mnt/rec/c"
            count /mnt/rec/c'
    for name in a b c; do count /mnt/rec/$name; done)sh");
  EXPECT_THAT(said, EndsWith("\n/mnt/rec/c 1\n/mnt/rec/a 1\n/mnt/rec/b 0\n/mnt/rec/c 1\n"));
}

TEST_F(LauncherTest, DirectoriesThatCannotBeSharedAreNamedAndTheOthersAre) {
  const std::string said = inSystem(R"sh(
    mkdir /mnt/good /mnt/users /mnt/all; chown 1234 /mnt/users; chmod 1777 /mnt/all; ln -s /mnt/users /mnt/link
    export DOCKHAND_NAMESPACE=always
    export DOCKHAND_SHARED=mnt/relative:/mnt/users/usb:/mnt/all/usb:/mnt/link/usb:/mnt/missing/usb:/::/tmp/usb:/mnt/good/a
    launch 'stick /mnt/good/a; stick /mnt/users/usb'
    count /mnt/good/a
    count /mnt/users/usb)sh");
  for (const char* refused : {"mnt/relative", "/mnt/users/usb", "/mnt/all/usb", "/mnt/link/usb",
                              "/mnt/missing/usb", "/tmp/usb", "/"}) {
    EXPECT_THAT(said, HasSubstr("DOCKHAND_SHARED: \"" + std::string(refused) + "\" is not shared: "));
  }
  EXPECT_THAT(said, AllOf(Not(HasSubstr("\"\"")), EndsWith("\n/mnt/good/a 1\n/mnt/users/usb 0\n")));
}

TEST_F(LauncherTest, ProgramIsStartedAsItIsWhereNoNamespaceCanBeMade) {
  const std::vector<std::string> ways = {
      "LAUNCHER='setpriv --bounding-set=-sys_admin dockhand-launch'",
      // After chroot the root is not a mount, so pivot_root fails.
      "mount -t tmpfs base /mnt; mkdir /mnt/root; cd /; for name in *; do "
      "if test -L $name; then cp -P $name /mnt/root; elif test -d $name -a $name != mnt; then mkdir -p "
      "/mnt/root/$name; "
      "mount --bind $name /mnt/root/$name; fi; done; LAUNCHER='chroot /mnt/root dockhand-launch'",
  };
  for (const std::string& way : ways) {
    const std::string said = inSystem(R"sh(
      mkdir -p /tmp/bin; ln -sf "$LAUNCHER" /tmp/bin/dockhand-launch; export PATH=/tmp/bin:$PATH
      long_table
      launch() { $LAUNCHER sh -ec "$COMMANDS $1"; }
      )sh" + way + "\nlaunch 'whose; echo $0'");
    EXPECT_THAT(said, AllOf(HasSubstr("cannot make a mount namespace: "),
                            HasSubstr("stays in the system's mount namespace, although the mount table has "),
                            HasSubstr("closing may not find its mounts"), EndsWith("\nsystem\nsh\n")))
        << way;
  }
  EXPECT_THAT(inSystem("\"$LAUNCHER\" /no/such/program || echo $?"),
              EndsWith("\"/no/such/program\": No such file or directory\n127\n"));
  EXPECT_THAT(inSystem("\"$LAUNCHER\" || echo $?"),
              EndsWith("usage: dockhand-launch PROGRAM [ARGUMENT]...\n2\n"));
}

TEST_F(LauncherTest, EndOfItsChildIsHeardOfAlsoWhereThatIsIgnored) {
  EXPECT_THAT(inSystem("export DOCKHAND_NAMESPACE=always; env --ignore-signal=CHLD \"$LAUNCHER\" sh -ec "
                       "\"$COMMANDS whose\""),
              EndsWith("\nown\n"));
}

TEST_F(LauncherTest, WhatAKilledRepairHasMountedIsUnmountedAndNothingElse) {
  EXPECT_THAT(inSystem("stick /media/disk_tmp; mount -t tmpfs other /media/disk_tmp; launch 'ls /media'"),
              AllOf(EndsWith("may not mount\n"), Not(HasSubstr("disk_tmp"))));
  // A directory without a mount stays.
  EXPECT_THAT(inSystem("mkdir /media/disk_tmp; launch 'ls /media'; rmdir /media/disk_tmp"),
              AllOf(EndsWith("\ndisk_tmp\n"), Not(HasSubstr("disk_tmp\""))));
  EXPECT_THAT(inSystem(R"sh(
                stick /media/disk_tmp; cd /media/disk_tmp
                launch 'count /media/disk_tmp'
                cd /; umount /media/disk_tmp; rmdir /media/disk_tmp)sh"),
              AllOf(HasSubstr("\"/media/disk_tmp\" stays mounted: Device or resource busy"),
                    EndsWith("\n/media/disk_tmp 1\n")));
  EXPECT_THAT(inSystem(R"sh(
                stick /mnt/disk; ln -s /mnt/disk /media/disk_tmp
                launch 'count /mnt/disk'
                rm /media/disk_tmp)sh"),
              EndsWith("\n/mnt/disk 1\n"));
}

}  // namespace
}  // namespace systest
