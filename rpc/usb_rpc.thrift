/**
 * The USB service of Dockhand: 25 operations on local socket 9020 (/run/ravel/9020.sock).
 *
 * Protocol: Thrift binary protocol over an unframed, buffered transport. Ten connections are served at a time;
 * further ones wait, unanswered, until one of the ten closes. A connection may carry any number of calls, one
 * after the other. A text of a request that is longer than 1 MiB ends the connection.
 *
 * Device numbers are small numbers of 1 or more that Dockhand gives to a device when it first sees it and gives
 * again after the device has gone. A number that no device has, negative ones included, is an unknown device.
 *
 * Failures: unless an operation says otherwise it reports failure through its result and the log, and raises
 * nothing. Any call may end with a TApplicationException when something unforeseen fails inside the daemon
 * (memory, for instance); the connection and the daemon go on.
 *
 * Waiting: nearly every operation runs under the one lock of the service and so waits for those before it; the
 * slow ones are PrepareDeviceForPvr (many seconds), OpenDevice and the queries of a slow disk.
 *
 * Texts that come from a disk (labels, file names) are bytes as the disk has them and need not be valid UTF-8.
 */
namespace cpp ravel.rpc
namespace py ravel.usb_rpc
namespace js ravel.usb_rpc

/** A flag and a text. What the flag means differs from operation to operation and is said there. */
struct ReturnValueWithString {
  1: bool success
  2: string text
}

/** What all services of the device have in common: nothing that this one uses. */
service common_service_rpc_gen_ {
}

service usb_rpc_gen_ extends common_service_rpc_gen_ {
  /**
   * Announces that the kernel has added a USB block device; meant for the device manager's plug event.
   *
   * Rescans /dev, marks the device as added and not safely removed, and calls every observer of added
   * devices except number 7. Does nothing further, and reports nothing, when: a disk is being prepared for
   * recording; /proc/partitions cannot be read; its first 1023 bytes do not hold the name exactly once (a whole
   * disk whose partition is listed too appears twice); no device has that name; the device is already announced
   * (so that a second announcement does not take a safe removal back, either).
   *
   * Raises a TApplicationException when the media service cannot be reached or answers with a failure. The
   * device stays announced; the observers after the failing one are not called.
   */
  void NotifyUsbAdded(
    /** Kernel name, without a path: sdb1 for a stick with partitions, sdb for one without. */
    1: string usbDevice)

  /**
   * Announces that a USB block device has gone; meant for the device manager's unplug event.
   *
   * Detaches the device's file system where it is still mounted, forgets the device, and calls every observer of
   * removed devices except number 7. An unknown name does nothing, and so does every call while a disk is being
   * prepared for recording.
   *
   * Raises as NotifyUsbAdded does; the device is forgotten all the same.
   */
  void NotifyUsbRemoved(
    /** Kernel name as for NotifyUsbAdded. */
    1: string usbDevice)

  /** Announces an Xrite device: calls observer 7 of added devices with device number -1. Raises as NotifyUsbAdded. */
  void NotifyUsbXriteAdded()

  /** Announces that the Xrite device has gone: calls observer 7 of removed devices with -1. Raises as NotifyUsbAdded. */
  void NotifyUsbXriteRemoved()

  /**
   * Rescans /dev and returns the numbers of the devices that a client may use, ascending. Devices that were safely
   * removed, or reported removed, are left out. An empty list also when /dev cannot be read and nothing is known.
   */
  list<i16> GetListOfInsertedDevices(
    /** True also lists devices that were opened as recording disks (OpenDeviceAt with isPvrDevice). */
    1: bool includeHidden)

  /** OpenDeviceAt at /media/disk_ followed by the device number, not as a recording disk. */
  bool OpenDevice(
    /** Device number. */
    1: i16 deviceId)

  /**
   * Mounts the file system of a device at a directory, which is created where it is missing.
   *
   * Whatever is mounted at /media/ plus the label, /media/ plus the UUID, /media/disk and at the directory itself
   * is unmounted first. File systems: vfat, ntfs, ext3, hfs, hfsplus, xfs; the one that the disk names is tried
   * first, then all of them. A read-only mount counts as success. Opening an open device mounts it anew.
   *
   * True when the device is mounted, or when the kernel's last answer was "busy" or "invalid superblock" (kept for
   * the services that rely on it: a look at the mount table tells the two apart, IsDeviceOpen does not). False for
   * an unknown or removed device, one under repair, one safely removed, a directory that cannot be created, a
   * failed mount.
   *
   * Opening a device that is open at another directory leaves the mount there, and forgets it: close it first.
   * A failed mount or directory leaves the path behind as the mount point: GetUsbMountPoint answers with it, and
   * closing, also for safe removal, answers true.
   */
  bool OpenDeviceAt(
    /** Device number. */
    1: i16 deviceId,
    /**
     * Absolute path of the directory, as the mount table will have it: closing looks for this very text in the first
     * 1024 bytes of /proc/mounts, with each blank written \040. A path with a link, a double slash, "." or "..", a
     * slash at the end, a tab, a newline or a backslash is mounted, but not found there: closing then answers true
     * and the device stays mounted. Where the daemon has a mount namespace of its own, a directory that is neither
     * below /media nor one of DOCKHAND_SHARED is mounted for the daemon alone.
     */
    2: string mountPoint,
    /** True hides the device from GetListOfInsertedDevices(false) from now on, also when the opening fails. */
    3: bool isPvrDevice)

  /**
   * Unmounts a device and removes its directory. False for an unknown device, one without a mount point, and when
   * the unmounting fails (a file is in use, for instance): the device then stays open.
   *
   * True also when no mount was found at the mount point: after a failed opening, and where the path is none of
   * those that close (see OpenDeviceAt) or stands behind the first 1024 bytes of the mount table.
   */
  bool CloseDevice(
    /** Device number. */
    1: i16 deviceId)

  /**
   * CloseDevice for a user who is about to pull the device out: after success it is neither listed nor opened until
   * it has been pulled out and plugged in. Announcing it takes that back only if it was not announced before. On
   * a device without a mount point: false, and nothing changes. As with CloseDevice, true does not prove that
   * nothing is mounted: look at the mount table.
   */
  bool CloseDeviceSafeRemoval(
    /** Device number. */
    1: i16 deviceId)

  /**
   * True when an opening by this service counted as done and no closing has since. Says nothing of the mount table:
   * OpenDeviceAt counts as done without a mount too, and others may unmount. False also for an unknown device.
   */
  bool IsDeviceOpen(
    /** Device number. */
    1: i16 deviceId)

  /**
   * Volume label, read from the disk. success says that the device is known; the text is "NONAME" for an unknown
   * device, an unreadable one, and one whose label is missing or has a single character.
   */
  ReturnValueWithString GetDeviceLabel(
    /** Device number. */
    1: i16 deviceId)

  /**
   * UUID of the file system, read from the disk. success says that one was found; otherwise the text is
   * "0000-0000".
   */
  ReturnValueWithString GetDeviceUuid(
    /** Device number. */
    1: i16 deviceId)

  /**
   * USB version of the device, as the device image's script readUsbVersion.sh prints it (its first line). success is
   * false, and the text empty, for an unknown device, when the script fails, and when it is not run because somebody
   * else has its output file, /tmp/NAME_bcdUSB.txt. A script that prints nothing gives an empty text with success.
   */
  ReturnValueWithString GetDeviceUsbVersion(
    /** Device number. */
    1: i16 deviceId)

  /** 0: unknown device, or the kernel does not say; 1: fixed disk; 2: removable medium. */
  i32 GetDeviceType(
    /** Device number. */
    1: i16 deviceId)

  /** Size of the whole device in MiB (2^20 bytes), rounded down; 0 for an unknown or unreadable device. */
  i32 GetDeviceCapacity(
    /** Device number. */
    1: i16 deviceId)

  /**
   * Repairs the XFS file system of a device that is not open. Runs for as long as the repair takes; other calls are
   * served meanwhile, opening this device is refused.
   *
   * False, and nothing is changed, for an unknown or open device, a file system that is not XFS or cannot be read, and
   * while another repair runs. False also when xfs_repair is not run because somebody else has the log file,
   * /tmp/Dockhand.log: only the journal may have been replayed then. False when xfs_repair fails and xfs_repair -L,
   * which drops a journal that cannot be replayed, fails or is not run too.
   */
  bool RunDiskRepair(
    /** Device number. */
    1: i16 deviceId)

  /**
   * The directory where the device is mounted, or where the last, failed opening was to mount it. success is always
   * true; an empty text means unknown or not mounted.
   */
  ReturnValueWithString GetUsbMountPoint(
    /** Device number. */
    1: i16 deviceId)

  /** Kernel name of the device (sdb1, or sdb for a stick without partitions). success says that it is known. */
  ReturnValueWithString GetUsbPhysicalDevice(
    /** Device number. */
    1: i16 deviceId)

  /**
   * The names (not paths) in one directory of a mounted device that end in an extension, in the directory's order.
   * Directories whose name matches are among them. An unreadable directory gives an empty list. For a device
   * that is unknown or not mounted the directory is looked up from the root of the file system. No more than 4,194,304
   * entries and 64 MiB of names are read of one directory, matching or not; the log says when something is left out.
   */
  list<string> GetFilesByExtension(
    /** Device number. */
    1: i16 deviceId,
    /** Path below the mount point; empty for the mount point itself. */
    2: string directory,
    /** Without the dot. Matched as given and in upper case: mp3 finds a.mp3 and a.MP3, not a.Mp3. */
    3: string extension)

  /** Registers an observer of added devices, in place of the one that had this number. Not kept over a restart. */
  void RegisterUsbAddedCallBack(
    /** Observer number; 7 is the Xrite consumer, which gets Xrite events only. */
    1: i8 observerId,
    /** Passed through to the media service unread. */
    2: i32 observer)

  /** Registers an observer of removed devices, in place of the one that had this number. Not kept over a restart. */
  void RegisterUsbRemovedCallBack(
    /** Observer number; 7 is the Xrite consumer, which gets Xrite events only. */
    1: i8 observerId,
    /** Passed through to the media service unread. */
    2: i32 observer)

  /** Removes an observer of added devices. An unknown number is ignored. */
  void DeregisterUsbAddedCallBack(
    /** Observer number. */
    1: i8 observerId,
    /** Logged, not compared. */
    2: i32 observer)

  /** Removes an observer of removed devices. An unknown number is ignored. */
  void DeregisterUsbRemovedCallBack(
    /** Observer number. */
    1: i8 observerId,
    /** Logged, not compared. */
    2: i32 observer)

  /** Rescans /dev: new devices get a number, those whose node has gone are forgotten (nothing is unmounted). */
  void CheckForAndUpdateNewDevices()

  /**
   * Turns a disk into a recording disk. DESTROYS ITS CONTENTS: one partition over the whole disk, formatted with XFS.
   * The label is carried over, cut to 11 bytes at most; without one it becomes "PVR_DISK". An open device is unmounted
   * by force. Takes six seconds at least, during which the other operations wait and plug events are ignored.
   *
   * False for an unknown device: plug events are then ignored until a preparation of a known one ends. False when
   * fdisk or mkfs.xfs fails, and when dd, fdisk or mkfs.xfs is not run because somebody else has the log file,
   * /tmp/Dockhand.log. No step runs after the failed one, and nothing is undone: unless dd was not run, the old
   * contents are lost. Also false for a disk that is still in use after the unmounting, for instance mounted in another
   * mount namespace: the wrappers of dd and fdisk refuse it, and its contents stay.
   */
  bool PrepareDeviceForPvr(
    /** Device number. */
    1: i16 deviceId)
}
