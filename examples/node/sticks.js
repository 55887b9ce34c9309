'use strict';
// Lists the USB sticks, opens them, reads their labels, then reports what comes and goes until Ctrl-C.

const fs = require('fs');
const net = require('net');
const thrift = require('thrift');
const MediaService = require('./gen-nodejs/corvane_rpc_gen_');
const UsbService = require('./gen-nodejs/usb_rpc_gen_');

const OBSERVER = 42;
const TIMEOUT_MILLISECONDS = 30000;

function socketPath(number) {
  return `${process.env.RAVEL_SOCKET_DIR || '/run/ravel'}/${number}.sock`;
}

// Reads texts as Buffers, which functions of fs accept as paths. Writes strings and Buffers.
//
// Labels and file names need not be UTF-8. TBinaryProtocol silently replaces other bytes with U+FFFD, and the name is
// lost.
class DiskTextProtocol extends thrift.TBinaryProtocol {
  readString() {
    return this.readBinary();
  }

  // Thrift looks the name of the operation up among the methods, so it must be a string.
  readMessageBegin() {
    const message = super.readMessageBegin();
    return { ...message, fname: message.fname.toString() };
  }
}

// Runs calls on their own connection. Dockhand serves ten at a time, so do not keep an idle one.
function withDockhand(calls) {
  return new Promise((resolve, reject) => {
    const connection = thrift.createUDSConnection(socketPath(9020), {
      transport: thrift.TBufferedTransport,
      protocol: DiskTextProtocol,
      timeout: TIMEOUT_MILLISECONDS,
    });
    // Thrift never settles the promise of a call whose connection ends, so reject it here.
    connection.on('error', reject);
    connection.on('close', () => reject(new Error('Dockhand closed the connection')));
    connection.on('timeout', () => connection.destroy());
    calls(thrift.createClient(UsbService, connection))
      .then(resolve, reject)
      .finally(() => connection.end());
  });
}

// listen fails if a socket file that nobody serves is left at the path.
function removeStaleSocket(path) {
  return new Promise((resolve, reject) => {
    const probe = net.connect(path);
    probe.on('connect', () => {
      probe.destroy();
      reject(new Error(`"${path}" already has a media service; subscribe there`));
    });
    probe.on('error', (error) => {
      if (error.code === 'ECONNREFUSED') {
        fs.unlinkSync(path);
      }
      resolve();
    });
  });
}

// Dockhand calls the media service, never the observers themselves. On a device with a media service, subscribe there;
// here we are the media service.
async function serveMediaService(onEvent) {
  const path = socketPath(9014);
  await removeStaleSocket(path);
  // Declare all three parameters: Thrift counts them to see that the method takes no callback for the reply.
  // Dockhand waits for the reply, so do the work later.
  const handler = {
    SendUsbAddedCallback: (usbDevice, observerId, observer) => void onEvent('added', usbDevice),
    SendUsbRemovedCallback: (usbDevice, observerId, observer) => void onEvent('removed', usbDevice),
  };
  const server = thrift.createServer(MediaService, handler, {
    transport: thrift.TBufferedTransport,
    protocol: thrift.TBinaryProtocol,
  });
  await new Promise((resolve, reject) => {
    server.on('error', reject);
    server.listen(path, resolve);
  });
}

// A text from a disk must not control the terminal.
function printable(bytes) {
  try {
    const text = new TextDecoder('utf-8', { fatal: true }).decode(bytes);
    if (!/[\p{C}\p{Zl}\p{Zp}]/u.test(text)) {
      return text;
    }
  } catch (notUtf8) {
    // Print it byte by byte.
  }
  return bytes.toString('latin1').replace(/[^ -~]/g, (c) => '\\x' + c.charCodeAt(0).toString(16).padStart(2, '0'));
}

// Opens a stick unless it is open, because opening it again would mount it again.
async function describe(dockhand, device) {
  const isOpen = (await dockhand.IsDeviceOpen(device)) || (await dockhand.OpenDevice(device));
  const label = printable((await dockhand.GetDeviceLabel(device)).text);
  if (!isOpen) {
    return `${device}: ${label} cannot be opened`;
  }
  return `${device}: ${label} at ${printable((await dockhand.GetUsbMountPoint(device)).text)}`;
}

function fail(error) {
  console.error(`sticks.js: ${error.message}`);
  process.exit(1);
}

async function main() {
  // Handle events one after another, in their order.
  let work = Promise.resolve();
  const later = (step) => {
    work = work.then(step).catch(fail);
  };

  let listed;
  later(() => new Promise((resolve) => (listed = resolve)));
  await serveMediaService((change, device) =>
    later(async () => {
      if (change === 'added') {
        await withDockhand(async (dockhand) => console.log('added', await describe(dockhand, device)));
      } else {
        console.log('removed', device);
      }
    })
  );

  // Register first, then list: a stick that comes in between is reported twice, not missed. Dockhand forgets us when it
  // restarts, so a service under systemd should be PartOf=dockhand.service.
  await withDockhand(async (dockhand) => {
    await dockhand.RegisterUsbAddedCallBack(OBSERVER, 0);
    await dockhand.RegisterUsbRemovedCallBack(OBSERVER, 0);
    for (const device of await dockhand.GetListOfInsertedDevices(false)) {
      console.log(await describe(dockhand, device));
    }
  });
  console.log('watching');
  listed();

  const end = () =>
    later(async () => {
      await withDockhand(async (dockhand) => {
        await dockhand.DeregisterUsbAddedCallBack(OBSERVER, 0);
        await dockhand.DeregisterUsbRemovedCallBack(OBSERVER, 0);
      });
      fs.unlinkSync(socketPath(9014));
      process.exit(0);
    });
  process.on('SIGINT', end);
  process.on('SIGTERM', end);
}

main().catch(fail);
