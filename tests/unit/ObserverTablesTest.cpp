// Registering and deregistering observers.

#include <limits>

#include "HandlerTest.h"

namespace {

class ObserverTables : public HandlerTest {};

TEST_F(ObserverTables, RegistersAnObserverOfAddedDevices) {
  handler->RegisterUsbAddedCallBack(3, 0x10);
  EXPECT_THAT(handler->addedObservers, ElementsAre(Pair(3, 0x10)));
  EXPECT_THAT(handler->removedObservers, IsEmpty());
  EXPECT_THAT(journal().events(),
              ElementsAre("log 2 @1350 Register USB ADDED callback for observerId 3 and observer is 0x10"));
}

TEST_F(ObserverTables, RegistersAnObserverOfRemovedDevices) {
  handler->RegisterUsbRemovedCallBack(3, 0x10);
  EXPECT_THAT(handler->removedObservers, ElementsAre(Pair(3, 0x10)));
  EXPECT_THAT(handler->addedObservers, IsEmpty());
  EXPECT_THAT(journal().events(),
              ElementsAre("log 2 @1360 Register USB REMOVED callback for observerId 3 and observer is 0x10"));
}

TEST_F(ObserverTables, ReplacesTheObserverOfANumberThatIsAlreadyRegistered) {
  handler->RegisterUsbAddedCallBack(3, 0x10);
  handler->RegisterUsbAddedCallBack(3, 0x20);
  EXPECT_THAT(handler->addedObservers, ElementsAre(Pair(3, 0x20)));
  handler->RegisterUsbRemovedCallBack(3, 0x10);
  handler->RegisterUsbRemovedCallBack(3, 0x20);
  EXPECT_THAT(handler->removedObservers, ElementsAre(Pair(3, 0x20)));
}

TEST_F(ObserverTables, DeregistersFromTheTableOfAddedDevicesWithAnyObserver) {
  handler->addedObservers = {{3, 0x10}, {4, 0x11}};
  handler->removedObservers = {{3, 0x10}};
  handler->DeregisterUsbAddedCallBack(3, 0x99);
  EXPECT_THAT(handler->addedObservers, ElementsAre(Pair(4, 0x11)));
  EXPECT_THAT(handler->removedObservers, ElementsAre(Pair(3, 0x10)));
  EXPECT_THAT(journal().events(),
              ElementsAre("log 2 @1370 Deregister USB ADDED callback for observerId 3 and observer is 0x99"));
}

TEST_F(ObserverTables, DeregistersFromTheTableOfRemovedDevicesWithAnyObserver) {
  handler->removedObservers = {{3, 0x10}, {4, 0x11}};
  handler->addedObservers = {{3, 0x10}};
  handler->DeregisterUsbRemovedCallBack(3, 0x99);
  EXPECT_THAT(handler->removedObservers, ElementsAre(Pair(4, 0x11)));
  EXPECT_THAT(handler->addedObservers, ElementsAre(Pair(3, 0x10)));
  EXPECT_THAT(
      journal().events(),
      ElementsAre("log 2 @1380 Deregister USB REMOVED callback for observerId 3 and observer is 0x99"));
}

TEST_F(ObserverTables, IgnoresTheDeregistrationOfAnUnknownNumber) {
  handler->addedObservers = {{3, 0x10}};
  handler->removedObservers = {{3, 0x10}};
  handler->DeregisterUsbAddedCallBack(4, 0x10);
  handler->DeregisterUsbRemovedCallBack(4, 0x10);
  EXPECT_THAT(handler->addedObservers, ElementsAre(Pair(3, 0x10)));
  EXPECT_THAT(handler->removedObservers, ElementsAre(Pair(3, 0x10)));
  EXPECT_THAT(
      journal().events(),
      ElementsAre("log 2 @1370 Deregister USB ADDED callback for observerId 4 and observer is 0x10",
                  "log 2 @1380 Deregister USB REMOVED callback for observerId 4 and observer is 0x10"));
}

TEST_F(ObserverTables, KeepsAllNumbersInSignedOrder) {
  for (int id = 127; id >= -128; --id) {
    handler->RegisterUsbAddedCallBack(static_cast<std::int8_t>(id), id);
    handler->RegisterUsbRemovedCallBack(static_cast<std::int8_t>(id), id);
  }
  for (const auto* table : {&handler->addedObservers, &handler->removedObservers}) {
    ASSERT_EQ(table->size(), 256U);
    int next = -128;
    for (const auto& [id, observer] : *table) {
      EXPECT_EQ(id, next);
      EXPECT_EQ(observer, next);
      ++next;
    }
  }
}

TEST_F(ObserverTables, WritesObserverNumbersAsNumbersAndObserversInHexadecimal) {
  const std::pair<std::int32_t, std::string> observers[] = {
      {0, "0"},
      {-1, "ffffffff"},
      {std::numeric_limits<std::int32_t>::min(), "80000000"},
      {std::numeric_limits<std::int32_t>::max(), "7fffffff"},
      {0xABCDEF, "abcdef"}};
  for (const int id : {-128, -1, 0, 7, 65, 127}) {
    for (const auto& [observer, text] : observers) {
      journal().clear();
      const auto observerId = static_cast<std::int8_t>(id);
      handler->RegisterUsbAddedCallBack(observerId, observer);
      handler->RegisterUsbRemovedCallBack(observerId, observer);
      handler->DeregisterUsbAddedCallBack(observerId, observer);
      handler->DeregisterUsbRemovedCallBack(observerId, observer);
      const std::string end = " callback for observerId " + std::to_string(id) + " and observer is 0x" + text;
      EXPECT_THAT(
          journal().logs(),
          ElementsAre("log 2 @1350 Register USB ADDED" + end, "log 2 @1360 Register USB REMOVED" + end,
                      "log 2 @1370 Deregister USB ADDED" + end, "log 2 @1380 Deregister USB REMOVED" + end));
    }
  }
}

TEST_F(ObserverTables, LogsNothingAboveTraceLevel) {
  setThreshold(3);
  handler->RegisterUsbAddedCallBack(1, 1);
  handler->RegisterUsbRemovedCallBack(1, 1);
  EXPECT_EQ(handler->addedObservers.size(), 1U);
  EXPECT_EQ(handler->removedObservers.size(), 1U);
  handler->DeregisterUsbAddedCallBack(1, 1);
  handler->DeregisterUsbRemovedCallBack(1, 1);
  EXPECT_THAT(journal().events(), IsEmpty());
  EXPECT_THAT(handler->addedObservers, IsEmpty());
  EXPECT_THAT(handler->removedObservers, IsEmpty());
}

}  // namespace
