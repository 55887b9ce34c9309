#include "CheckedHandler.h"

#include <sys/mount.h>

#include <algorithm>
#include <cstring>
#include <sstream>

#include "HookedTlog.h"

namespace soak {

namespace {

// These log lines show the position of an operation. Their numbers never change.
constexpr int removalLooksForItsDevice = 397;       // with the lock
constexpr int additionIsAboutToCallObserver = 364;  // without the lock
constexpr int removalIsAboutToCallObserver = 436;   // without the lock

std::string table(const std::map<unsigned, std::string>& records, bool withPartitions) {
  std::ostringstream text;
  for (const auto& [number, line] : records) {
    text << "  " << number << ": " << line << '\n';
  }
  return text.str() + (withPartitions ? "" : "  (partitions apart)\n");
}

/// A record as text, the same for the handler and the model.
std::string recordLine(const std::string& name, bool partition, bool open, bool safelyRemoved,
                       const std::string& mountPoint, int lastNotice, bool hidden) {
  std::ostringstream text;
  text << name << (partition ? " with partition" : "") << (open ? " open" : "")
       << (safelyRemoved ? " safely removed" : "") << (hidden ? " hidden" : "") << " notice " << lastNotice
       << " at \"" << mountPoint << '"';
  return text.str();
}

std::string firstWord(const std::string& text) {
  return text.substr(0, text.find(' '));
}

}  // namespace

/// One operation, in the worker thread that runs it.
class CheckedHandler::Step {
 public:
  Step(CheckedHandler& handler, std::string name, const Expected& expected)
      : handler_(handler), name_(std::move(name)), expected_(expected) {
    actual_.faults = handler_.drawFaults(name_.substr(0, name_.find('(')));
    running() = this;
  }
  Step(const Step&) = delete;
  Step& operator=(const Step&) = delete;
  ~Step() { running() = nullptr; }

  /// The step that runs in this thread, or null.
  static Step*& running() {
    static thread_local Step* step = nullptr;
    return step;
  }

  int call(const std::string& text) {
    begin(text);
    const int error = actual_.fail(text);
    if (error != 0) {
      ++handler_.faults_[firstWord(text)][error];
    }
    return error;
  }

  /// Takes the turn, with the handler's lock held.
  void begin(const std::string& occasion) {
    if (turn_.owns_lock() || settled_) {
      return;
    }
    turn_ = std::unique_lock<std::mutex>(handler_.turn_);
    // A scan clears the partitions before it looks for the nodes.
    handler_.compareMap(firstWord(occasion) != "scandir", "at the beginning of " + name_);
  }

  /// Runs the step in the model and releases the turn. Works with or without the handler's lock.
  void settle() {
    if (settled_) {
      return;
    }
    settled_ = true;
    if (!turn_.owns_lock()) {
      turn_ = std::unique_lock<std::mutex>(handler_.turn_);
    }
    Calls model;
    model.faults = actual_.faults;
    answer_ = expected_(handler_.model_, model);
    handler_.scans_ = handler_.model_.scans;
    ++handler_.steps_;
    note();
    if (actual_.made != model.made) {
      handler_.failInTurn(name_ + " made the calls\n" + lines(actual_.made) + "instead of\n" +
                          lines(model.made));
    }
    const std::string left = handler_.world_.underMedia();
    const std::string expectedLeft = underMedia(handler_.model_.machine);
    if (left != expectedLeft) {
      handler_.failInTurn(name_ + " left under /media\n" + left + "instead of\n" + expectedLeft);
    }
    turn_.unlock();
  }

  void finish(const std::string& answer) {
    settle();
    if (answer != answer_) {
      handler_.fail(name_ + " returned " + answer + " instead of " + answer_);
    }
  }

 private:
  void note() {
    std::string text = name_ + " -> " + answer_;
    for (const std::string& made : actual_.made) {
      if (const int error = actual_.faults.of(made)) {
        text += "\n      " + made + ": " + std::strerror(error);
      }
    }
    handler_.remember(text);
  }

  static std::string lines(const std::vector<std::string>& texts) {
    std::string all;
    for (const std::string& text : texts) {
      all += "  " + text + '\n';
    }
    return all;
  }

  CheckedHandler& handler_;
  const std::string name_;
  const Expected& expected_;
  Calls actual_;
  std::unique_lock<std::mutex> turn_;
  bool settled_ = false;
  std::string answer_;
};

CheckedHandler::CheckedHandler(World& world, FaultyPlatform& platform, std::uint64_t seed)
    : DockhandClient(platform), world_(world), seed_(seed) {
  model_.machine.missingFileSystems = world.missingFileSystems();
  setLogLineHook(onLogLine);
}

int CheckedHandler::decide(const std::string& call) {
  Step* const step = Step::running();
  return step != nullptr ? step->call(call) : 0;
}

void CheckedHandler::onLogLine(int sourceLine) {
  Step* const step = Step::running();
  if (step == nullptr) {
    return;
  }
  if (sourceLine == removalLooksForItsDevice) {
    step->begin("a removal");
  } else if (sourceLine == additionIsAboutToCallObserver || sourceLine == removalIsAboutToCallObserver) {
    // An observer may call the service, which must not wait for this step.
    step->settle();
  }
}

Faults CheckedHandler::drawFaults(const std::string& operation) {
  return faultsWanted_ ? Faults(seed_ + ++drawn_, operation) : Faults();
}

void CheckedHandler::fail(const std::string& what) {
  const std::lock_guard<std::mutex> turn(turn_);
  failInTurn(what);
}

void CheckedHandler::failInTurn(const std::string& what) {
  if (failed_.exchange(true)) {
    return;
  }
  failure_ = what + "\nDOCKHAND_SOAK_SEED=" + std::to_string(seed_) + "\nThe last steps:";
  for (const std::string& step : lastSteps_) {
    failure_ += "\n  " + step;
  }
}

std::string CheckedHandler::failure() {
  const std::lock_guard<std::mutex> turn(turn_);
  return failure_;
}

void CheckedHandler::remember(const std::string& step) {
  constexpr std::size_t maxSteps = 40;
  lastSteps_.push_back(step);
  if (lastSteps_.size() > maxSteps) {
    lastSteps_.pop_front();
  }
}

void CheckedHandler::compareMap(bool withPartitions, const std::string& occasion) {
  std::map<unsigned, std::string> actual;
  for (const auto& [number, entry] : deviceMap) {
    actual[number] =
        recordLine(entry.deviceName, withPartitions && entry.partitionCount != 0, entry.deviceOpen,
                   entry.safelyRemoved, entry.mountPoint, entry.lastUsbOperation, entry.hidden);
  }
  std::map<unsigned, std::string> expected;
  for (const auto& [number, record] : model_.records) {
    expected[number] = recordLine(record.name, withPartitions && record.partition, record.open,
                                  record.safelyRemoved, record.mountPoint, record.lastNotice, record.hidden);
  }
  if (actual != expected) {
    failInTurn(occasion + " the table is\n" + table(actual, withPartitions) + "instead of\n" +
               table(expected, withPartitions));
  }
}

void CheckedHandler::compareAtRest(const std::string& occasion) {
  const Dockhand::HandlerLock lock(handlerMutex);
  const std::lock_guard<std::mutex> turn(turn_);
  compareMap(true, occasion);
  const std::string left = world_.underMedia();
  if (left != underMedia(model_.machine)) {
    failInTurn(occasion + " /media has\n" + left + "instead of\n" + underMedia(model_.machine));
  }
  const std::string held = world_.heldByHandler();
  if (!held.empty()) {
    failInTurn(occasion + " the handler holds " + held);
  }
}

void CheckedHandler::plug(const Stick& stick) {
  const std::lock_guard<std::mutex> turn(turn_);
  world_.plug(stick);
  model_.machine.plug(stick);
  remember("(plug " + stick.announcedName() + ")");
}

void CheckedHandler::unplug(const Stick& stick) {
  const std::lock_guard<std::mutex> turn(turn_);
  world_.unplug(stick);
  model_.machine.unplug(stick);
  remember("(unplug " + stick.announcedName() + ")");
}

void CheckedHandler::automount(const Stick& stick, const std::string& directory) {
  const std::lock_guard<std::mutex> turn(turn_);
  world_.platform().mkdir(directory, 0755);
  world_.platform().mount(stick.node(), directory, stick.disk.mountsAs.c_str(), MS_NOSUID, "");
  model_.machine.makeDirectory(directory);
  model_.machine.mount(stick.node(), directory, stick.disk.mountsAs, MS_NOSUID, "");
  remember("(automount " + stick.announcedName() + " at " + directory + ")");
}

void CheckedHandler::fillMountTable(std::size_t size) {
  const std::lock_guard<std::mutex> turn(turn_);
  world_.fillMountTable(size);
  model_.machine.tableHead = world_.tableHead();
}

std::optional<std::pair<std::int16_t, Record>> CheckedHandler::recordOf(const Stick& stick) {
  const std::lock_guard<std::mutex> turn(turn_);
  for (const auto& [number, record] : model_.records) {
    if (record.name == stick.name) {
      return std::pair(static_cast<std::int16_t>(number), record);
    }
  }
  return std::nullopt;
}

std::vector<std::string> CheckedHandler::placesInUse() {
  const std::lock_guard<std::mutex> turn(turn_);
  std::vector<std::string> places;
  for (const Machine::Mount& mount : model_.machine.mounts()) {
    places.push_back(mount.target);
  }
  places.insert(places.end(), model_.machine.directories().begin(), model_.machine.directories().end());
  return places;
}

std::vector<std::string> CheckedHandler::takeCallbacks() {
  const std::lock_guard<std::mutex> turn(turn_);
  std::vector<std::string> taken;
  taken.swap(model_.callbacks);
  std::sort(taken.begin(), taken.end());
  return taken;
}

void CheckedHandler::setObservers(const std::map<int, int>& observers) {
  const std::lock_guard<std::mutex> turn(turn_);
  model_.observers = observers;
}

std::map<std::string, std::map<int, std::size_t>> CheckedHandler::faults() {
  const std::lock_guard<std::mutex> turn(turn_);
  return faults_;
}

std::size_t CheckedHandler::steps() {
  const std::lock_guard<std::mutex> turn(turn_);
  return steps_;
}

void CheckedHandler::check(const std::string& name, const std::function<std::string()>& operation,
                           const Expected& expected) {
  if (Step::running() != nullptr) {
    operation();
    return;
  }
  Step step(*this, name, expected);
  step.finish(operation());
}

}  // namespace soak
