#include "Kills.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <iostream>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "World.h"

namespace systest {

namespace {

using Clock = std::chrono::steady_clock;

std::string environment(const char* name) {
  const char* const value = std::getenv(name);
  return value != nullptr ? value : "";
}

Duration median(std::vector<Duration> durations) {
  std::sort(durations.begin(), durations.end());
  return durations.at(durations.size() / 2);
}

std::string summaryOf(const std::vector<Duration>& durations) {
  std::ostringstream text;
  text << std::fixed << std::setprecision(1) << median(durations).count() << " ms, at most "
       << std::max_element(durations.begin(), durations.end())->count();
  return text.str();
}

/// The number of the handler's last line, with the tool's number if the line is about a tool.
std::string lastLine(const Daemon& daemon) {
  const std::regex number(R"(Src/Dockhand/DockhandClient:(\d+) (?:.* # from Line=(\d+))?)");
  std::string last = "none";
  for (const std::string& line : daemon.logLines()) {
    std::smatch parts;
    if (std::regex_search(line, parts, number)) {
      last = parts[1].str() + (parts[2].matched ? "/" + parts[2].str() : "");
    }
  }
  return last;
}

}  // namespace

std::size_t Kills::wanted() {
  const std::string kills = environment("DOCKHAND_KILLS");
  return kills.empty() ? 4 : std::stoul(kills);
}

Kills::Kills(std::string operation) : operation_(std::move(operation)) {
  const std::string seed = environment("DOCKHAND_KILLS_SEED");
  seed_ = seed.empty() ? std::random_device()() : std::stoul(seed);
  random_.seed(seed_);
  // Orphaned tools become children of this process, so that it can wait for them.
  if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) {
    throw std::runtime_error(std::string("PR_SET_CHILD_SUBREAPER: ") + std::strerror(errno));
  }
}

bool Kills::measure(UsbClient& client, const Call& call) {
  const auto begin = Clock::now();
  call.send(client);
  const bool answer = call.receive(client);
  measured_.emplace_back(Clock::now() - begin);
  parts_ = {{Duration(0), median(measured_)}};
  return answer;
}

Duration Kills::drawMoment() {
  Duration all(0);
  for (const auto& [begin, end] : parts_) {
    all += end - begin;
  }
  Duration moment(std::uniform_real_distribution<>(0, all.count())(random_));
  for (const auto& [begin, end] : parts_) {
    if (moment <= end - begin) {
      return begin + moment;
    }
    moment -= end - begin;
  }
  return parts_.back().second;
}

void Kills::kill(Daemon& daemon, UsbClient& client, const Call& call) {
  moment_ = drawMoment();
  toolsRunOn_ = random_() % 2 == 0;
  killed_ = daemon.pid();
  const auto begin = Clock::now();
  call.send(client);
  std::this_thread::sleep_until(begin + moment_);
  daemon.kill();
  ++kills_;
  try {
    call.receive(client);
    ++answered_;
  } catch (const apache::thrift::transport::TTransportException&) {
    // The usual case: the connection ends with the daemon.
  }
  noteWhatIsLeft(daemon);
  if (!toolsRunOn_) {
    ::kill(-killed_, SIGTERM);
    waitForTools();
  }
}

void Kills::noteWhatIsLeft(const Daemon& daemon) {
  ++places_[lastLine(daemon)];
  for (const char* const directory : {"/media/disk_1", "/media/disk_tmp"}) {
    const std::size_t mounts = mountsAt(directory).size();
    mountsLeft_ += mounts;
    directoriesLeft_ += mounts == 0 && access(directory, F_OK) == 0 ? 1 : 0;
  }
  if (::kill(-killed_, 0) == 0) {
    ++(toolsRunOn_ ? toolsLeftRunning_ : toolsEnded_);
  }
}

void Kills::waitForTools() const {
  while (waitpid(-killed_, nullptr, 0) > 0 || errno == EINTR) {
  }
}

void Kills::start(std::optional<Daemon>& daemon, const Environment& environment) {
  const auto begin = Clock::now();
  daemon.emplace(environment);
  (kills_ > restarts_.size() ? restarts_ : firstStarts_).emplace_back(Clock::now() - begin);
}

std::string Kills::description() const {
  return operation_ + ", seed " + std::to_string(seed_) + ", kill " + std::to_string(kills_) + " after " +
         std::to_string(moment_.count()) + " ms, its tools " + (toolsRunOn_ ? "running on" : "ended");
}

void Kills::print() const {
  std::ostringstream text;
  text << std::fixed << std::setprecision(1);
  text << "kill: " << operation_ << ": " << before() << " kills within " << median(measured_).count()
       << " ms, and " << answered_ << " after the reply; seed " << seed_ << '\n';
  text << "kill: " << operation_ << ": after " << places_.size() << " different log lines, as line*kills:";
  for (const auto& [line, count] : places_) {
    text << ' ' << line << '*' << count;
  }
  text << "\nkill: " << operation_ << ": left behind " << mountsLeft_ << " mounts, " << directoriesLeft_
       << " empty directories; tools were ended " << toolsEnded_ << " times and ran on " << toolsLeftRunning_
       << " times\n";
  text << "kill: " << operation_ << ": first start " << summaryOf(firstStarts_) << "; restart "
       << summaryOf(restarts_) << "\n";
  std::cout << text.str();
}

}  // namespace systest
