// Lists the USB sticks, opens them, reads their labels, then reports what comes and goes until Ctrl-C.

#include <pthread.h>
#include <thrift/Thrift.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/server/TThreadedServer.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TServerSocket.h>
#include <thrift/transport/TSocket.h>
#include <unistd.h>

#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <mutex>
#include <queue>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "corvane_rpc_gen_.h"
#include "usb_rpc_gen_.h"

using apache::thrift::TOutput;
using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::protocol::TBinaryProtocolFactory;
using apache::thrift::server::TThreadedServer;
using apache::thrift::transport::TBufferedTransport;
using apache::thrift::transport::TBufferedTransportFactory;
using apache::thrift::transport::TServerSocket;
using apache::thrift::transport::TSocket;
using apache::thrift::transport::TTransportException;
using ravel::rpc::ReturnValueWithString;

// Thrift 0.24 no longer has this variable. There, nothing uses our declaration.
namespace apache::thrift {
extern TOutput GlobalOutput;
}

namespace {

void ignore(const char*) {}

/// Thrift also writes to standard error what it throws. This stops it: since 0.24 by TOutput::instance(),
template <typename Output>
auto silenceThrift(int) -> decltype(Output::instance().setOutputFunction(ignore)) {
  Output::instance().setOutputFunction(ignore);
}

/// and by the variable in older versions, in which the function above does not compile and is passed over.
template <typename Output>
void silenceThrift(long) {
  apache::thrift::GlobalOutput.setOutputFunction(ignore);
}

constexpr std::int8_t observer = 42;
constexpr int timeoutMilliseconds = 30000;

std::string socketPath(int number) {
  const char* directory = std::getenv("RAVEL_SOCKET_DIR");
  const bool given = directory != nullptr && *directory != '\0';
  return std::string(given ? directory : "/run/ravel") + "/" + std::to_string(number) + ".sock";
}

/// A connection for a few calls. Dockhand serves ten at a time, so do not keep an idle one.
class Dockhand {
 public:
  Dockhand()
      : socket_(std::make_shared<TSocket>(socketPath(9020))),
        client_(std::make_shared<TBinaryProtocol>(std::make_shared<TBufferedTransport>(socket_))) {
    socket_->setConnTimeout(timeoutMilliseconds);
    socket_->setRecvTimeout(timeoutMilliseconds);
    socket_->setSendTimeout(timeoutMilliseconds);
    try {
      socket_->open();
    } catch (const TTransportException& failure) {
      throw std::runtime_error(socketPath(9020) + ": " + failure.what());
    }
  }

  ravel::rpc::usb_rpc_gen_Client* operator->() { return &client_; }

 private:
  std::shared_ptr<TSocket> socket_;
  ravel::rpc::usb_rpc_gen_Client client_;
};

struct Event {
  enum class Kind { added, removed, end } kind;
  std::int16_t device = 0;
};

/// Passes events from other threads to main.
class Events {
 public:
  void push(Event event) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      events_.push(event);
    }
    arrived_.notify_one();
  }

  Event pop() {
    std::unique_lock<std::mutex> lock(mutex_);
    arrived_.wait(lock, [this] { return !events_.empty(); });
    const Event event = events_.front();
    events_.pop();
    return event;
  }

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::queue<Event> events_;
};

/// Dockhand calls the media service, never the observers themselves. On a device with a media service,
/// subscribe there; here we are the media service. Dockhand waits for the reply, so main does the work.
class MediaService : public ravel::rpc::corvane_rpc_gen_If {
 public:
  explicit MediaService(Events& events) : events_(events) {}

  void SendUsbAddedCallback(const std::int16_t device, const std::int8_t, const std::int32_t) override {
    events_.push({Event::Kind::added, device});
  }

  void SendUsbRemovedCallback(const std::int16_t device, const std::int8_t, const std::int32_t) override {
    events_.push({Event::Kind::removed, device});
  }

 private:
  Events& events_;
};

/// Listens as soon as it is made, so that no event comes too early.
class ListeningSocket : public TServerSocket {
 public:
  explicit ListeningSocket(const std::string& path) : TServerSocket(path) { TServerSocket::listen(); }
  /// The server would listen again.
  void listen() override {}
};

/// bind fails if a socket file that nobody serves is left at the path.
void removeStaleSocket(const std::string& path) {
  try {
    TSocket(path).open();
  } catch (const TTransportException&) {
    unlink(path.c_str());
    return;
  }
  throw std::runtime_error("\"" + path + "\" already has a media service; subscribe there");
}

/// Needs several threads: while one call waits, Dockhand may make another call on a new connection.
void serveMediaService(Events& events) {
  const std::string path = socketPath(9014);
  removeStaleSocket(path);
  const auto server = std::make_shared<TThreadedServer>(
      std::make_shared<ravel::rpc::corvane_rpc_gen_Processor>(std::make_shared<MediaService>(events)),
      std::make_shared<ListeningSocket>(path), std::make_shared<TBufferedTransportFactory>(),
      std::make_shared<TBinaryProtocolFactory>());
  std::thread([server] { server->serve(); }).detach();
}

/// A text from a disk may be any bytes, not only UTF-8, and must not control the terminal. To open a file,
/// use its name unchanged.
std::string printable(const std::string& text) {
  std::string result;
  for (const char c : text) {
    if (c >= ' ' && c <= '~') {
      result += c;
    } else {
      char escaped[5];
      std::snprintf(escaped, sizeof(escaped), "\\x%02x", static_cast<unsigned char>(c));
      result += escaped;
    }
  }
  return result;
}

/// Opens a stick unless it is open, because opening it again would mount it again.
std::string describe(Dockhand& dockhand, std::int16_t device) {
  const bool isOpen = dockhand->IsDeviceOpen(device) || dockhand->OpenDevice(device);
  ReturnValueWithString label;
  dockhand->GetDeviceLabel(label, device);
  const std::string name = std::to_string(device) + ": " + printable(label.text);
  if (!isOpen) {
    return name + " cannot be opened";
  }
  ReturnValueWithString directory;
  dockhand->GetUsbMountPoint(directory, device);
  return name + " at " + printable(directory.text);
}

void watch(Events& events) {
  serveMediaService(events);
  {
    // Register first, then list: a stick that comes in between is reported twice, not missed. Dockhand
    // forgets us when it restarts, so a service under systemd should be PartOf=dockhand.service.
    Dockhand dockhand;
    dockhand->RegisterUsbAddedCallBack(observer, 0);
    dockhand->RegisterUsbRemovedCallBack(observer, 0);
    std::vector<std::int16_t> devices;
    dockhand->GetListOfInsertedDevices(devices, false);
    for (const std::int16_t device : devices) {
      std::cout << describe(dockhand, device) << std::endl;
    }
  }
  std::cout << "watching" << std::endl;

  for (Event event = events.pop(); event.kind != Event::Kind::end; event = events.pop()) {
    if (event.kind == Event::Kind::added) {
      Dockhand dockhand;
      std::cout << "added " << describe(dockhand, event.device) << std::endl;
    } else {
      std::cout << "removed " << event.device << std::endl;
    }
  }

  Dockhand dockhand;
  dockhand->DeregisterUsbAddedCallBack(observer, 0);
  dockhand->DeregisterUsbRemovedCallBack(observer, 0);
  unlink(socketPath(9014).c_str());
}

}  // namespace

int main() {
  silenceThrift<TOutput>(0);

  // Before the first thread, because threads inherit the mask.
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGINT);
  sigaddset(&ending, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &ending, nullptr);

  Events events;
  std::thread([&] {
    int signal = 0;
    sigwait(&ending, &signal);
    events.push({Event::Kind::end});
  }).detach();

  int status = EXIT_SUCCESS;
  try {
    watch(events);
  } catch (const std::exception& failure) {
    std::cerr << "sticks: " << failure.what() << std::endl;
    status = EXIT_FAILURE;
  }
  // Do not wait for the threads: Dockhand keeps its connection, and the server waits until it ends.
  std::_Exit(status);
}
