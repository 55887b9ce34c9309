/**
 * The two operations of the media service that Dockhand calls.
 *
 * The media service listens on local socket 9014 (/run/ravel/9014.sock), with the binary protocol over an unframed,
 * buffered transport.
 *
 * Order: for each event Dockhand calls the registered observers one after the other, in ascending order of the signed
 * observer number. It waits for each reply. It repeats no call.
 *
 * Time limits: connecting and receiving take at most 10 s together. If sending has to wait, it takes at most 10 s more.
 * After that Dockhand closes the connection, and the caller of the notification gets a failure.
 *
 * Connections: Dockhand keeps a connection for the next call, and numbers its calls from 1. A reply must have the
 * number of its call; Thrift's libraries do that. A reply with another number is a failure. The service must send
 * nothing else: Dockhand closes a connection that brings more than the reply. The service may close a connection
 * between two calls, so it can be restarted; Dockhand connects again for the next call.
 *
 * Nested calls: both operations may call Dockhand before they return, and may even send another notification. Dockhand
 * holds no lock while it waits. It opens a second connection for such a nested event, so the service must serve more
 * than one at a time.
 */
namespace cpp ravel.rpc
namespace py ravel.corvane_rpc
namespace js ravel.corvane_rpc

service corvane_rpc_gen_ {
  /**
   * A storage device, or an Xrite device, was added.
   *
   * An application exception as the reply ends the notification: Dockhand does not call the observers after this one,
   * and the caller of the notification gets the failure. Dockhand keeps the connection.
   */
  void SendUsbAddedCallback(
    /** Device number of the storage device, 1 or more; -1 means the Xrite device. */
    1: i16 usbDevice,
    /** Number of the observer. 7 is the Xrite observer, the only one that is called with -1. */
    2: i8 observerId,
    /** The value of the registration. Dockhand does not read it. */
    3: i32 observer)

  /**
   * A storage device, or an Xrite device, was removed. Failures as for SendUsbAddedCallback.
   */
  void SendUsbRemovedCallback(
    /** Number that the storage device had (its record is already gone); -1 means the Xrite device. */
    1: i16 usbDevice,
    /** Number of the observer. 7 is the Xrite observer, the only one that is called with -1. */
    2: i8 observerId,
    /** The value of the registration. Dockhand does not read it. */
    3: i32 observer)
}
