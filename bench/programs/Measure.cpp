// bench_measure COMMAND ARGUMENT...: takes one measurement and prints it as lines of a name and a number.
// bench/compare runs it in a private root.

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <map>
#include <string>

#include "Commands.h"

int main(int argc, char** argv) {
  const std::map<std::string, void (*)(const bench::Arguments&)> commands = {
      {"stub-call", bench::stubCall},                         // COUNT
      {"raw-call", bench::rawCall},                           // SOCKET COUNT
      {"peer-ping", bench::peerPing},                         // COUNT
      {"stub-load", bench::stubLoad},                         // CONNECTIONS COUNT
      {"raw-load", bench::rawLoad},                           // SOCKET CONNECTIONS COUNT
      {"peer-load", bench::peerLoad},                         // CONNECTIONS COUNT
      {"many-connections", bench::manyConnections},           // SOCKET CONNECTIONS
      {"list", bench::list},                                  // COUNT
      {"peer-list", bench::peerList},                         // COUNT
      {"bare-scan", bench::bareScan},                         // COUNT
      {"answers", bench::answers},                            // DEVICE COUNT
      {"usb-version", bench::usbVersion},                     // DEVICE
      {"peer-answers", bench::peerAnswers},                   // OBJECT COUNT
      {"peer-answers-together", bench::peerAnswersTogether},  // OBJECT COUNT
      {"bare-probe", bench::bareProbe},                       // NODE COUNT
      {"open", bench::openAndClose},                          // DEVICE COUNT
      {"peer-mount", bench::peerMountAndUnmount},             // OBJECT COUNT
      {"open-only", bench::openOnly},                         // DEVICE
      {"close-only", bench::closeOnly},                       // DEVICE
      {"peer-call", bench::peerCall},                         // OBJECT METHOD
      {"mount-program", bench::mountProgram},                 // NODE DIRECTORY COUNT
      {"bare-open", bench::bareOpenAndClose},                 // NODE DIRECTORY COUNT
      {"start", bench::startOnSocket},                        // COUNT SOCKET PROGRAM ARGUMENT...
      {"start-peer", bench::startPeer},                       // COUNT PROGRAM ARGUMENT...
      {"fill-folder", bench::fillFolder},                     // FOLDER COUNT
      {"search", bench::searchFiles},                         // SOCKET FOLDER BYTES COUNT
      {"bare-search", bench::bareSearch},                     // FOLDER COUNT
      {"prepare", bench::prepareAndRepair},                   // DEVICE
      {"tools", bench::runTools},                             // NODE
  };
  const auto command = argc > 1 ? commands.find(argv[1]) : commands.end();
  if (command == commands.end()) {
    std::fprintf(stderr, "bench_measure: unknown command; Measure.cpp lists them\n");
    return 2;
  }
  try {
    command->second({argv + 2, argv + argc});
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "%s: %s\n", argv[1], failure.what());
    return EXIT_FAILURE;
  }
}
