#ifndef TESTS_SUPPORT_TESTABLEHANDLER_H
#define TESTS_SUPPORT_TESTABLEHANDLER_H

#include "DockhandClient.h"

/// The handler with its members public, for tests and fuzz targets.
class TestableHandler : public Dockhand::DockhandClient {
 public:
  using DockhandClient::addedObservers;
  using DockhandClient::CheckForAndRemoveMount;
  using DockhandClient::clearAutomounts;
  using DockhandClient::deviceMap;
  using DockhandClient::diskRepairDeviceId;
  using DockhandClient::diskRepairRunning;
  using DockhandClient::DockhandClient;
  using DockhandClient::eraseVanishedDevices;
  using DockhandClient::executeShellCommand;
  using DockhandClient::findByKernelName;
  using DockhandClient::findDevice;
  using DockhandClient::getBlkidLookupValue;
  using DockhandClient::GetPartitionInfo;
  using DockhandClient::GetUsbMountDevice;
  using DockhandClient::handlerMutex;
  using DockhandClient::insertDevice;
  using DockhandClient::isListedOnce;
  using DockhandClient::keepFailedProbe;
  using DockhandClient::letNodeGo;
  using DockhandClient::Lock;
  using DockhandClient::mountByTable;
  using DockhandClient::NodeHold;
  using DockhandClient::PartitionInfo;
  using DockhandClient::prepareDisk;
  using DockhandClient::pvrLabel;
  using DockhandClient::pvrPreparationRunning;
  using DockhandClient::releaseDevice;
  using DockhandClient::removedObservers;
  using DockhandClient::setPvrPreparationRunning;
};

#endif  // TESTS_SUPPORT_TESTABLEHANDLER_H
