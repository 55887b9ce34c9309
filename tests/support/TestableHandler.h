#ifndef TESTS_SUPPORT_TESTABLEHANDLER_H
#define TESTS_SUPPORT_TESTABLEHANDLER_H

#include "DockhandClient.h"

/// The handler with its members public, for tests and fuzz targets.
class TestableHandler : public Dockhand::DockhandClient {
 public:
  using DockhandClient::addedObservers;
  using DockhandClient::CheckForAndRemoveMount;
  using DockhandClient::deviceMap;
  using DockhandClient::diskRepairDeviceId;
  using DockhandClient::diskRepairRunning;
  using DockhandClient::DockhandClient;
  using DockhandClient::executeShellCommand;
  using DockhandClient::getBlkidLookupValue;
  using DockhandClient::GetPartitionInfo;
  using DockhandClient::GetUsbMountDevice;
  using DockhandClient::handlerMutex;
  using DockhandClient::pvrPreparationRunning;
  using DockhandClient::releaseDevice;
  using DockhandClient::removedObservers;
};

#endif  // TESTS_SUPPORT_TESTABLEHANDLER_H
