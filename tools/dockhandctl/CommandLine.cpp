#include "CommandLine.h"

#include <CLI/CLI.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Commands.h"
#include "Failure.h"
#include "Text.h"

namespace dockhandctl {
namespace {

constexpr std::int8_t defaultObserver = 100;
constexpr std::int8_t xriteObserver = 7;

const char* const exitCodes = R"(Exit status:
  0  done, or the answer is yes
  1  the answer is no; doctor: there is a warning or a problem
  2  wrong usage
  3  no such device
  4  the daemon cannot be reached
  5  the daemon replied with a failure, or ended the connection
  6  the daemon did not reply in time
  7  watch: a media service is running
  8  prepare: not confirmed, nothing was done
  9  something failed on this side, such as writing the output)";

/// Keeps the lines of the text at the end of the help: newer versions of CLI11 fill it as a paragraph.
class HelpFormatter : public CLI::Formatter {
 public:
  std::string make_footer(const CLI::App* /*app*/) const override { return {}; }
  std::string make_help(const CLI::App* app, std::string name, CLI::AppFormatMode mode) const override {
    std::string help = Formatter::make_help(app, std::move(name), mode);
    if (mode != CLI::AppFormatMode::Sub) {
      help.erase(help.find_last_not_of(" \n") + 1);
      help += "\n\n" + app->get_footer() + "\n";
    }
    return help;
  }
};

/// All options and arguments, and the command to run.
struct Request {
  Settings settings;
  double timeout = 30;
  bool all = false;
  bool pvr = false;
  bool again = false;
  bool safe = false;
  bool yes = false;
  bool xrite = false;
  std::int16_t device = 0;
  std::string directory;
  std::string extension;
  std::string event;
  std::string action;
  std::string name;
  std::int8_t observerId = defaultObserver;
  std::int32_t value = 0;
  std::vector<std::string> ignored;
  std::function<int()> command;
};

/// CLI11 reads an 8-bit number as a character.
void addObserverId(CLI::App& command, Request& request, const std::string& name,
                   const std::string& description) {
  command
      .add_option_function<int>(
          name, [&request](const int& number) { request.observerId = static_cast<std::int8_t>(number); },
          description)
      ->check(CLI::Range(-128, 127));
}

void addTimeout(CLI::App& command, Request& request) {
  command
      .add_option("--timeout", request.timeout,
                  "Wait at most this long for a reply (default: 30); prepare and repair have no limit")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.001, 86400.0));
}

void addDevice(CLI::App& command, Request& request) {
  command.add_option("ID", request.device, "Number of the device")->required();
}

void addJson(CLI::App& command, Request& request) {
  command.add_flag("--json", request.settings.json, "Print JSON");
}

void addDeviceQuery(CLI::App& app, Request& request, const char* name, const char* description,
                    int (*query)(const Settings&, std::int16_t)) {
  CLI::App* const command = app.add_subcommand(name, description);
  addDevice(*command, request);
  addJson(*command, request);
  command->callback([&request, query] {
    request.command = [&request, query] { return query(request.settings, request.device); };
  });
}

void addReadingCommands(CLI::App& app, Request& request) {
  CLI::App* const statusCommand = app.add_subcommand("status", "Show all devices in a table");
  statusCommand->add_flag("--all", request.all, "Include devices that were opened as recording disks");
  addJson(*statusCommand, request);
  statusCommand->callback(
      [&request] { request.command = [&request] { return status(request.settings, request.all); }; });

  CLI::App* const listCommand = app.add_subcommand("list", "List the numbers of the devices");
  listCommand->add_flag("--all", request.all, "Include devices that were opened as recording disks");
  addJson(*listCommand, request);
  listCommand->callback(
      [&request] { request.command = [&request] { return list(request.settings, request.all); }; });

  addDeviceQuery(app, request, "info", "Show everything about a device", info);
  addDeviceQuery(app, request, "label", "Print its volume label", label);
  addDeviceQuery(app, request, "uuid", "Print the UUID of its file system", uuid);
  addDeviceQuery(app, request, "usb-version", "Print its USB version", usbVersion);
  addDeviceQuery(app, request, "type", "Print its type, fixed or removable", type);
  addDeviceQuery(app, request, "capacity", "Print the size of the whole disk in MiB", capacity);
  addDeviceQuery(app, request, "mount-point", "Print the directory where it is open", mountPoint);
  addDeviceQuery(app, request, "kernel-name", "Print its kernel name, such as sdb1", kernelName);
  addDeviceQuery(app, request, "is-open", "Print yes or no", isOpen);

  CLI::App* const filesCommand = app.add_subcommand("files", "List the files of an open device by extension");
  addDevice(*filesCommand, request);
  filesCommand->add_option("DIR", request.directory, "Path on the device, '' for its top directory")
      ->required();
  filesCommand->add_option("EXT", request.extension, "Extension without the dot; mp3 also finds MP3")
      ->required();
  addJson(*filesCommand, request);
  filesCommand->callback([&request] {
    request.command = [&request] {
      return files(request.settings, request.device, request.directory, request.extension);
    };
  });
}

void addMountingCommands(CLI::App& app, Request& request) {
  CLI::App* const openCommand = app.add_subcommand("open", "Mount a device");
  addDevice(*openCommand, request);
  openCommand->add_option("--at", request.directory, "Mount it at this directory, not at /media/disk_ID")
      ->type_name("DIR")
      ->check([](const std::string& path) {
        return !path.empty() && path.front() == '/' ? "" : "\"" + path + "\" is not an absolute path";
      });
  openCommand->add_flag("--pvr", request.pvr,
                        "Open it as a recording disk; list and status hide it from now on");
  openCommand->add_flag("--again", request.again,
                        "Even if it is open at another directory; that mount stays");
  openCommand->callback([&request] {
    request.command = [&request] {
      return open(request.settings, request.device, request.directory, request.pvr, request.again);
    };
  });

  CLI::App* const closeCommand = app.add_subcommand("close", "Unmount a device");
  addDevice(*closeCommand, request);
  closeCommand->add_flag("--safe", request.safe,
                         "Before pulling it out: nobody uses it until it is plugged in again");
  closeCommand->callback([&request] {
    request.command = [&request] { return close(request.settings, request.device, request.safe); };
  });

  CLI::App* const prepareCommand =
      app.add_subcommand("prepare", "Turn a disk into a recording disk; DESTROYS ITS CONTENTS");
  addDevice(*prepareCommand, request);
  prepareCommand->add_flag("--yes", request.yes, "Do not ask");
  prepareCommand->callback([&request] {
    request.command = [&request] { return prepare(request.settings, request.device, request.yes); };
  });

  CLI::App* const repairCommand = app.add_subcommand("repair", "Repair a recording disk that is not open");
  addDevice(*repairCommand, request);
  repairCommand->callback(
      [&request] { request.command = [&request] { return repair(request.settings, request.device); }; });
}

void addEventCommands(CLI::App& app, Request& request) {
  CLI::App* const rescanCommand = app.add_subcommand("rescan", "Look for new and gone devices");
  rescanCommand->callback([&request] { request.command = [&request] { return rescan(request.settings); }; });

  CLI::App* const notifyCommand =
      app.add_subcommand("notify", "Announce a plug event, as the device manager does");
  notifyCommand->add_option("EVENT", request.event, "added, removed, xrite-added or xrite-removed")
      ->required()
      ->check(CLI::IsMember({"added", "removed", "xrite-added", "xrite-removed"}));
  const CLI::Option* const name =
      notifyCommand->add_option("NAME", request.name, "Kernel name of the device, for added and removed");
  notifyCommand->callback([&request, name] {
    const bool takesName = request.event == "added" || request.event == "removed";
    if (takesName == name->empty()) {
      throw Failure(wrongUsage, takesName ? "notify " + request.event + " needs the kernel NAME of the device"
                                          : "notify " + request.event + " takes no NAME");
    }
    request.command = [&request] { return notify(request.settings, request.event, request.name); };
  });

  CLI::App* const observerCommand = app.add_subcommand("observer", "Register or deregister an observer");
  observerCommand->add_option("ACTION", request.action, "add or remove")
      ->required()
      ->check(CLI::IsMember({"add", "remove"}));
  observerCommand->add_option("EVENT", request.event, "added or removed")
      ->required()
      ->check(CLI::IsMember({"added", "removed"}));
  addObserverId(*observerCommand, request, "OBSERVER_ID", "Number of the observer; 7 gets only Xrite events");
  observerCommand->get_option("OBSERVER_ID")->required();
  observerCommand->add_option("VALUE", request.value, "Passed to the media service (default: 0)");
  observerCommand->callback([&request] {
    request.command = [&request] {
      return observer(request.settings, request.action, request.event, request.observerId, request.value);
    };
  });

  CLI::App* const watchCommand =
      app.add_subcommand("watch", "Print events as they come, in place of the media service");
  addJson(*watchCommand, request);
  addObserverId(*watchCommand, request, "--observer-id", "Register under this number (default: 100)");
  CLI::Option* const observerId = watchCommand->get_option("--observer-id")->type_name("N");
  watchCommand->add_flag("--xrite", request.xrite, "Register under number 7, for events of Xrite devices")
      ->excludes(observerId);
  watchCommand->callback([&request] {
    request.command = [&request] {
      return watch(request.settings, request.xrite ? xriteObserver : request.observerId);
    };
  });
}

void addOtherCommands(CLI::App& app, Request& request) {
  CLI::App* const callCommand =
      app.add_subcommand("call", "Call an operation by its interface name: call OPERATION ARGUMENT...");
  callCommand->add_flag("--yes", request.yes, "Do not ask before PrepareDeviceForPvr");
  // Everything after the operation belongs to it, even if it looks like one of our options.
  callCommand->prefix_command()->fallthrough(false);
  addTimeout(*callCommand, request);
  callCommand->footer("Operations with their arguments; bool is true or false:\n" + operationList());
  callCommand->callback([&request, callCommand] {
    const std::vector<std::string> words = callCommand->remaining();
    if (words.empty()) {
      throw Failure(wrongUsage, "call needs the name of an operation; see dockhandctl call --help");
    }
    request.command = [&request, words] {
      return call(request.settings, words.front(), {words.begin() + 1, words.end()}, request.yes);
    };
  });

  CLI::App* const doctorCommand =
      app.add_subcommand("doctor", "Check the system around the daemon and say how to fix it");
  addJson(*doctorCommand, request);
  doctorCommand
      ->add_option("--ignore", request.ignored, "Ignore this check in the exit status; may be repeated")
      ->type_name("CHECK")
      ->expected(1)
      ->take_all();
  doctorCommand->callback(
      [&request] { request.command = [&request] { return runDoctor(request.settings, request.ignored); }; });
}

}  // namespace

int runCommandLine(int argumentCount, char** arguments) {
  Request request;
  CLI::App app("Shows, controls and diagnoses Dockhand, the USB storage daemon.", "dockhandctl");
  app.formatter(std::make_shared<HelpFormatter>());
  app.set_version_flag("--version", "dockhandctl " DOCKHAND_VERSION, "Print the version");
  addTimeout(app, request);
  app.require_subcommand(1);
  app.fallthrough();
  app.footer(exitCodes);
  addReadingCommands(app, request);
  addMountingCommands(app, request);
  addEventCommands(app, request);
  addOtherCommands(app, request);

  try {
    app.parse(argumentCount, arguments);
    request.settings.timeout = std::chrono::milliseconds(static_cast<int>(request.timeout * 1000));
    return request.command();
  } catch (const CLI::Success& help) {
    return app.exit(help);
  } catch (const CLI::ParseError& error) {
    complain(printable(error.what()) + " (see dockhandctl --help)");
    return wrongUsage;
  } catch (const Failure& failure) {
    complain(failure.what());
    return failure.exitCode();
  }
}

}  // namespace dockhandctl
