/**
 * The two operations of the media service that Dockhand calls.
 *
 * The media service listens on local socket 9014 (/run/ravel/9014.sock) with the binary protocol over an
 * unframed, buffered transport. Dockhand calls it once for each registered observer of an event, in ascending
 * order of the signed observer number, one call after the other, and waits for each reply. A call has 10 s for
 * connecting and receiving together, and sending has 10 s more where it waits: a service that needs longer gets the
 * connection closed, and the caller of the notification a failure. No call is repeated.
 *
 * Dockhand keeps a connection for the next call and numbers the calls on it from 1. The reply has the number of its
 * call, which Thrift's libraries see to, and the service sends nothing else: a reply with another number is a failure,
 * and a connection on which more comes than the reply is closed. The service may close a connection at any time between
 * two calls, so it may be restarted; Dockhand connects anew for the next call.
 *
 * Both operations may call back into Dockhand before they return, also to send another notification: Dockhand
 * holds no lock while it waits. For such a nested event Dockhand opens a second connection, so the service
 * needs to serve more than one at a time.
 */
namespace cpp ravel.rpc
namespace py ravel.corvane_rpc
namespace js ravel.corvane_rpc

service corvane_rpc_gen_ {
  /**
   * A storage device, or an Xrite device, was added.
   *
   * An application exception as the answer ends the notification: the observers after this one are not called,
   * and the caller of the notification gets the failure. Dockhand keeps the connection.
   */
  void SendUsbAddedCallback(
    /** Device number of the storage device, 1 or more; -1 means the Xrite device. */
    1: i16 usbDevice,
    /** Number under which the observer registered; 7 is the Xrite consumer and the only one called with -1. */
    2: i8 observerId,
    /** The value given at registration, passed through unread. */
    3: i32 observer)

  /**
   * A storage device, or an Xrite device, was removed. Failures as for SendUsbAddedCallback.
   */
  void SendUsbRemovedCallback(
    /** Device number that the storage device had (its record is already gone); -1 means the Xrite device. */
    1: i16 usbDevice,
    /** Number under which the observer registered; 7 is the Xrite consumer and the only one called with -1. */
    2: i8 observerId,
    /** The value given at registration, passed through unread. */
    3: i32 observer)
}
