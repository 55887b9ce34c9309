/**
 * The USB service of Dockhand: 25 operations on local socket 9020 (/run/ravel/9020.sock).
 *
 * Protocol: Thrift's binary protocol over an unframed, buffered transport. A connection may carry any number of calls,
 * one after the other. Ten connections are served at a time; others get no reply until one of the ten closes. A text of
 * more than 1 MiB in a request ends the connection.
 *
 * Device numbers: small numbers of 1 or more. Dockhand gives one to a device that it sees for the first time. It gives
 * the number again after the device has gone. Any number without a device is an unknown device, also a negative one.
 *
 * Failures: an operation reports a failure in its result and in the log, and raises nothing unless it says so. Any call
 * may end with a TApplicationException if something unforeseen fails inside the daemon, such as memory. The connection
 * and the daemon go on.
 *
 * Waiting: nearly every operation holds the one lock of the service, and so waits for those before it. Slow operations
 * are PrepareDeviceForPvr (many seconds), OpenDevice, and the queries of a slow disk.
 *
 * Texts that come from a disk (labels, file names) are bytes as on the disk, and may not be valid UTF-8.
 */
namespace cpp ravel.rpc
namespace py ravel.usb_rpc
namespace js ravel.usb_rpc

/** A flag and a text. Each operation says what its flag means. */
struct ReturnValueWithString {
  1: bool success
  2: string text
}

/** The common base of all services of the device. This service uses nothing of it. */
service common_service_rpc_gen_ {
}

service usb_rpc_gen_ extends common_service_rpc_gen_ {
  /**
   * Announces that the kernel has added a USB block device. For the device manager's plug event.
   *
   * Rescans /dev, marks the device as added and not safely removed, and calls every observer of added devices except
   * number 7. Does nothing more, and reports nothing, if
   * - a disk is being prepared for recording;
   * - /proc/partitions cannot be read, or its first 1023 bytes do not hold the name exactly once (the name of a whole
   *   disk with a listed partition appears twice);
   * - no device has that name;
   * - the device is already announced. So a second announcement does not undo a safe removal either.
   *
   * Raises a TApplicationException if the media service is unreachable or replies with a failure. The device stays
   * announced. The observers after the failing one are not called.
   */
  void NotifyUsbAdded(
    /** Kernel name, without a path: sdb1 for a stick with partitions, sdb for one without. */
    1: string usbDevice)

  /**
   * Announces that a USB block device has gone. For the device manager's unplug event.
   *
   * Detaches the device's file system if it is still mounted, forgets the device, and calls every observer of removed
   * devices except number 7. Does nothing for an unknown name, or while a disk is being prepared for recording.
   *
   * Raises as NotifyUsbAdded does. The device is forgotten all the same.
   */
  void NotifyUsbRemoved(
    /** Kernel name as for NotifyUsbAdded. */
    1: string usbDevice)

  /** Announces an Xrite device: calls observer 7 of added devices with device number -1. Raises as NotifyUsbAdded. */
  void NotifyUsbXriteAdded()

  /** Announces that the Xrite device has gone: calls observer 7 of removed devices with -1. Raises likewise. */
  void NotifyUsbXriteRemoved()

  /**
   * Rescans /dev and returns the numbers of the devices that a client may use, in ascending order. Leaves out devices
   * that were safely removed or announced as removed. The list is empty also if /dev cannot be read and no device is
   * known.
   */
  list<i16> GetListOfInsertedDevices(
    /** True also lists devices that were opened as recording disks (OpenDeviceAt with isPvrDevice). */
    1: bool includeHidden)

  /** OpenDeviceAt at /media/disk_ plus the device number, not as a recording disk. */
  bool OpenDevice(
    /** Device number. */
    1: i16 deviceId)

  /**
   * Mounts the file system of a device at a directory, which is created if it is missing.
   *
   * First unmounts whatever is mounted at /media/ plus the label, /media/ plus the UUID, /media/disk, and the directory
   * itself. File systems: vfat, ntfs, ext3, hfs, hfsplus, xfs. The one that the disk names is tried first, then all of
   * them. A read-only mount counts as success. Opening an open device mounts it again.
   *
   * True if the device is mounted, and if the kernel's last error was "busy" or "invalid superblock". Some services
   * rely on the second; only a look at the mount table tells the two apart, IsDeviceOpen does not.
   *
   * An image may have a mount policy (dockhand(8)). It says which types are mounted, as what and with which options,
   * and which are refused. Then the reply is true only if the device is mounted, and false for a type that is refused.
   *
   * False for an unknown or removed device, one under repair, one safely removed, a directory that cannot be created,
   * and a failed mount. If the mount or the directory failed, the path stays as the mount point: GetUsbMountPoint
   * returns it, and closing returns true, also for safe removal.
   *
   * If the device is open at another directory, that mount stays, and Dockhand forgets it. So close the device first.
   */
  bool OpenDeviceAt(
    /** Device number. */
    1: i16 deviceId,
    /**
     * Absolute path of the directory, exactly as the mount table will show it. Closing looks for this text in the first
     * 1024 bytes of /proc/mounts, with each blank written \040. It does not find a path with a link, a double slash,
     * "." or "..", a slash at the end, a tab, a newline or a backslash. Such a path is mounted, but closing then
     * returns true and the device stays mounted. If the daemon has a mount namespace of its own, only directories
     * below /media and those of DOCKHAND_SHARED are mounted for others too.
     */
    2: string mountPoint,
    /** True hides the device from GetListOfInsertedDevices(false) from now on, even if the opening fails. */
    3: bool isPvrDevice)

  /**
   * Unmounts a device and removes its directory.
   *
   * False for an unknown device, one without a mount point, and if the unmount fails, for example because a file is in
   * use. The device then stays open.
   *
   * True also if no mount was found at the mount point. That happens after a failed opening, for a path that closing
   * does not find (see OpenDeviceAt), and for a mount after the first 1024 bytes of the mount table.
   */
  bool CloseDevice(
    /** Device number. */
    1: i16 deviceId)

  /**
   * CloseDevice for a user who is about to pull the device out. After success the device is neither listed nor opened
   * until it was pulled out and plugged in again. An announcement ends that only for a device that was not announced
   * before.
   *
   * False for a device without a mount point; then nothing changes. As with CloseDevice, true does not prove that
   * nothing is mounted: look at the mount table.
   */
  bool CloseDeviceSafeRemoval(
    /** Device number. */
    1: i16 deviceId)

  /**
   * True if an opening by this service counted as done and no closing has since. False also for an unknown device.
   *
   * Says nothing about the mount table: an opening may count as done without a mount, and others may unmount.
   */
  bool IsDeviceOpen(
    /** Device number. */
    1: i16 deviceId)

  /**
   * Volume label, read from the disk. success: the device is known. The text is "NONAME" for an unknown device, an
   * unreadable one, and one whose label is missing or has a single character.
   */
  ReturnValueWithString GetDeviceLabel(
    /** Device number. */
    1: i16 deviceId)

  /**
   * UUID of the file system, read from the disk. success: a UUID was found. Otherwise the text is "0000-0000".
   */
  ReturnValueWithString GetDeviceUuid(
    /** Device number. */
    1: i16 deviceId)

  /**
   * USB version of the device: the first line that the image's script readUsbVersion.sh prints. A script that prints
   * nothing gives an empty text with success.
   *
   * success is false, and the text empty, for an unknown device, if the script fails, and if it is not run because
   * somebody else has its output file, /tmp/NAME_bcdUSB.txt.
   */
  ReturnValueWithString GetDeviceUsbVersion(
    /** Device number. */
    1: i16 deviceId)

  /** 0: unknown device, or the kernel does not say; 1: fixed disk; 2: removable medium. */
  i32 GetDeviceType(
    /** Device number. */
    1: i16 deviceId)

  /** Size of the whole disk in MiB (2^20 bytes), rounded down; 0 for an unknown or unreadable device. */
  i32 GetDeviceCapacity(
    /** Device number. */
    1: i16 deviceId)

  /**
   * Repairs the XFS file system of a device that is not open. Takes as long as the repair. Other calls are served
   * meanwhile; opening this device is refused.
   *
   * False, and nothing is changed, for an unknown or open device, a file system that is not XFS or cannot be read, and
   * while another repair runs.
   *
   * False also if xfs_repair is not run because somebody else has the log file, /tmp/Dockhand.log. Only the journal may
   * have been replayed then. False if xfs_repair fails, and xfs_repair -L fails too or is not run. xfs_repair -L drops
   * a journal that cannot be replayed.
   */
  bool RunDiskRepair(
    /** Device number. */
    1: i16 deviceId)

  /**
   * The directory where the device is mounted. After a failed opening it is the directory of that opening. success is
   * always true; an empty text means unknown or not mounted.
   */
  ReturnValueWithString GetUsbMountPoint(
    /** Device number. */
    1: i16 deviceId)

  /** Kernel name of the device: sdb1, or sdb for a stick without partitions. success: the device is known. */
  ReturnValueWithString GetUsbPhysicalDevice(
    /** Device number. */
    1: i16 deviceId)

  /**
   * The names (not paths) in one directory of a mounted device that end in an extension, in the directory's order.
   * Directories whose name matches are among them. An unreadable directory gives an empty list.
   *
   * For a device that is unknown or not mounted, the directory is looked up from the root of the file system. At most
   * 4,194,304 entries and 64 MiB of names are read of a directory, matching or not. The log says if something is left
   * out.
   */
  list<string> GetFilesByExtension(
    /** Device number. */
    1: i16 deviceId,
    /** Path below the mount point; empty for the mount point itself. */
    2: string directory,
    /** Without the dot. Matched as given and in upper case: mp3 finds a.mp3 and a.MP3, not a.Mp3. */
    3: string extension)

  /** Registers an observer of added devices. Replaces the one with this number. A restart loses the registration. */
  void RegisterUsbAddedCallBack(
    /** Observer number; 7 is the Xrite observer, which gets only Xrite events. */
    1: i8 observerId,
    /** Passed to the media service. Dockhand does not read it. */
    2: i32 observer)

  /** Registers an observer of removed devices. Replaces the one with this number. A restart loses the registration. */
  void RegisterUsbRemovedCallBack(
    /** Observer number; 7 is the Xrite observer, which gets only Xrite events. */
    1: i8 observerId,
    /** Passed to the media service. Dockhand does not read it. */
    2: i32 observer)

  /** Removes an observer of added devices. Ignores an unknown number. */
  void DeregisterUsbAddedCallBack(
    /** Observer number. */
    1: i8 observerId,
    /** Logged, not compared. */
    2: i32 observer)

  /** Removes an observer of removed devices. Ignores an unknown number. */
  void DeregisterUsbRemovedCallBack(
    /** Observer number. */
    1: i8 observerId,
    /** Logged, not compared. */
    2: i32 observer)

  /** Rescans /dev. New devices get a number. Devices without a node are forgotten, but not unmounted. */
  void CheckForAndUpdateNewDevices()

  /**
   * Turns a disk into a recording disk. DESTROYS ITS CONTENTS: one partition over the whole disk, formatted with XFS.
   *
   * The label is kept, cut to at most 11 bytes; a disk without one gets "PVR_DISK". An open device is unmounted by
   * force. Takes at least six seconds. Meanwhile the other operations wait, and plug events are ignored.
   *
   * False for an unknown device: plug events are then ignored until a preparation of a known one ends. False if fdisk
   * or mkfs.xfs fails, and if dd, fdisk or mkfs.xfs is not run because somebody else has the log file,
   * /tmp/Dockhand.log. No step runs after the failed one, and nothing is undone: the old contents are lost unless dd
   * was not run.
   *
   * False also for a disk that is still in use after the unmount, for example mounted in another mount namespace. The
   * wrappers of dd and fdisk refuse it, and its contents stay.
   */
  bool PrepareDeviceForPvr(
    /** Device number. */
    1: i16 deviceId)
}
