#ifndef DOCKHAND_BENCH_COMMANDS_H
#define DOCKHAND_BENCH_COMMANDS_H

#include "Sampling.h"

/// The commands of bench_measure. Each measures one thing and reports it; Measure.cpp lists the arguments.
/// "Stub" is the client that Thrift generates. "Raw" sends bytes that are encoded beforehand. "Peer" is
/// udisksd over the system bus. "Bare" is the system calls by themselves.
namespace bench {

// Calls.cpp
void stubCall(const Arguments& arguments);
void rawCall(const Arguments& arguments);
void peerPing(const Arguments& arguments);
void stubLoad(const Arguments& arguments);
void rawLoad(const Arguments& arguments);
void peerLoad(const Arguments& arguments);
void manyConnections(const Arguments& arguments);

// Reading.cpp
void list(const Arguments& arguments);
void peerList(const Arguments& arguments);
void bareScan(const Arguments& arguments);
void answers(const Arguments& arguments);
void usbVersion(const Arguments& arguments);
void peerAnswers(const Arguments& arguments);
void peerAnswersTogether(const Arguments& arguments);
void bareProbe(const Arguments& arguments);

// Mounting.cpp
void openAndClose(const Arguments& arguments);
void peerMountAndUnmount(const Arguments& arguments);
void openOnly(const Arguments& arguments);
void closeOnly(const Arguments& arguments);
void peerCall(const Arguments& arguments);
void mountProgram(const Arguments& arguments);
void bareOpenAndClose(const Arguments& arguments);

// Starting.cpp
void startOnSocket(const Arguments& arguments);
void startPeer(const Arguments& arguments);

// Files.cpp
void fillFolder(const Arguments& arguments);
void searchFiles(const Arguments& arguments);
void bareSearch(const Arguments& arguments);

// Tools.cpp
void prepareAndRepair(const Arguments& arguments);
void runTools(const Arguments& arguments);

}  // namespace bench

#endif  // DOCKHAND_BENCH_COMMANDS_H
