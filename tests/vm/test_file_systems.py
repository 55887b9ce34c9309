"""Opening sticks with each file system, with the kernel's own drivers."""

import daemon
import disks

LABEL = "MyLabel"


class FileSystems(daemon.DaemonTestCase):
    def setUp(self):
        super().setUp()
        self.start_daemon()

    def plug(self, image, **options):
        """Plugs in a stick, which becomes device 1."""
        stick = self.machine.plug(image, **options)
        self.machine.wait_event(stick, "change", "sda")
        self.finish_announcements()
        return stick

    def pull(self, stick):
        self.machine.unplug(stick)
        self.machine.wait_gone(stick, "sda")
        self.finish_announcements()

    def bare_and_partitioned(self, filesystem, label=LABEL):
        """Plugs in a stick of each kind, one after the other."""
        for name, image in (
            ("sda", disks.make(self.folder, filesystem, label, "bare.img")),
            ("sda1", disks.make_partitioned(self.folder, [filesystem], label)),
        ):
            stick = self.plug(image)
            self.assertEqual(self.kernel_name(1), name)
            yield
            self.pull(stick)
            self.assertEqual(self.mounts(), [])

    def open(self):
        self.assert_ctl(0, "open", 1)
        self.assert_ctl(0, "is-open", 1)

    def assert_keeps_what_is_written(self, name="written.txt"):
        self.machine.put(f"/media/disk_1/{name}", b"kept\n")
        self.assert_ctl(0, "close", 1)
        self.assertEqual(self.mounts(), [])
        self.open()
        self.assertEqual(self.machine.get(f"/media/disk_1/{name}"), b"kept\n")
        self.assertEqual(self.names_of_files(1, name.rpartition(".")[2]), [name])

    def assert_opens_without_a_mount(self, what_it_is):
        """Expects that the last attempt finds no superblock, which counts as success, and that the client sees no mount."""
        result = self.assert_ctl(1, "open", 1)
        self.assertIn(
            f'counts as open, but nothing is mounted at "/media/disk_1": {what_it_is};', result.stderr
        )
        self.assert_ctl(0, "is-open", 1)
        self.assertEqual(self.mounts(), [])
        self.assertIn("invalid superblock", self.daemon_log())

    def test_vfat_keeps_files_and_their_names_in_utf8(self):
        for _ in self.bare_and_partitioned("vfat", "my stick"):
            self.assertEqual(self.ask("label", 1)["label"], "my stick")
            self.open()
            self.assert_mounted("/media/disk_1", "vfat", "rw", "nosuid", "utf8")
            self.assert_keeps_what_is_written("Größe \u266b.mp3")

    def test_ext3_keeps_files(self):
        for _ in self.bare_and_partitioned("ext3"):
            self.assertEqual(self.ask("label", 1)["label"], LABEL)
            self.open()
            self.assert_mounted("/media/disk_1", "ext3", "rw", "nosuid")
            self.assert_keeps_what_is_written()

    def test_xfs_keeps_files_and_has_project_quota(self):
        for _ in self.bare_and_partitioned("xfs"):
            self.assertEqual(self.ask("label", 1)["label"], LABEL)
            self.open()
            self.assert_mounted("/media/disk_1", "xfs", "rw", "nosuid", "noexec", "noatime", "prjquota")
            self.assert_keeps_what_is_written()

    def test_hfsplus_is_read_only(self):
        for _ in self.bare_and_partitioned("hfsplus"):
            self.assertEqual(self.ask("label", 1)["label"], LABEL)
            self.open()
            self.assert_mounted("/media/disk_1", "hfsplus", "ro", "nosuid", "nls=utf8")
            self.assertEqual(self.names_of_files(1, "txt"), ["hello.txt"])
            self.assertEqual(self.machine.get("/media/disk_1/hello.txt"), b"hello\n")
            self.assertNotEqual(self.machine.run(["touch", "/media/disk_1/new.txt"]).status, 0)

    def test_hfs_is_refused_by_the_kernel_for_its_options(self):
        for _ in self.bare_and_partitioned("hfs"):
            self.assertEqual(self.ask("label", 1)["label"], LABEL)
            self.assert_opens_without_a_mount("its file system is hfs")

    def test_ntfs_keeps_files_where_the_kernel_knows_that_name(self):
        for _ in self.bare_and_partitioned("ntfs"):
            self.assertEqual(self.ask("label", 1)["label"], LABEL)
            if self.kernel_has("ntfs"):
                self.open()
                # The kernel shows the option nls by its other name.
                self.assert_mounted("/media/disk_1", "ntfs", "rw", "nosuid", "noexec", "iocharset=utf8")
                self.assert_keeps_what_is_written("Größe \u266b.mp3")
            else:
                self.assert_opens_without_a_mount("its file system is ntfs")

    def test_ext4_with_extents_is_no_ext3(self):
        for _ in self.bare_and_partitioned("ext4"):
            self.assertEqual(self.ask("label", 1)["label"], LABEL)
            self.assert_opens_without_a_mount("its file system is ext4")

    def test_an_empty_stick_and_one_with_garbage_have_nothing_to_mount(self):
        for content in ("empty", "garbage"):
            with self.subTest(content):
                stick = self.plug(disks.make(self.folder, content))
                self.assertEqual(self.ask("label", 1)["label"], "NONAME")
                self.assert_ctl(1, "uuid", 1)
                self.assert_opens_without_a_mount("no file system is known on it")
                self.pull(stick)

    def test_a_write_protected_stick_is_opened_for_reading(self):
        for filesystem in ("vfat", "ext3"):
            with self.subTest(filesystem):
                stick = self.plug(disks.make_partitioned(self.folder, [filesystem], LABEL), read_only=True)
                self.open()
                self.assert_mounted("/media/disk_1", filesystem, "ro", "nosuid")
                self.assert_ctl(0, "close", 1)
                self.assertEqual(self.mounts(), [])
                self.pull(stick)
