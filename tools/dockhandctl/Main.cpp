#include <exception>
#include <iostream>

#include "CommandLine.h"
#include "Failure.h"
#include "Text.h"
#include "ThriftOutput.h"

int main(int argumentCount, char** arguments) {
  try {
    dockhandctl::useUtf8();
    // Everything that Thrift prints also comes as an exception, which we report ourselves.
    ravel::rpc::thriftOutput().setOutputFunction([](const char*) {});
    const int exitCode = dockhandctl::runCommandLine(argumentCount, arguments);
    std::cout.flush();
    if (!std::cout) {
      dockhandctl::complain("standard output cannot be written");
      return dockhandctl::ownFailure;
    }
    return exitCode;
  } catch (const std::exception& error) {
    dockhandctl::complain(error.what());
    return dockhandctl::ownFailure;
  }
}
