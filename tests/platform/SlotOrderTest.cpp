#include <utils/CodeMonitor.h>
#include <utils/PeriodicCallerManager.h>
#include <utils/SystemTimeHandler.h>
#include <utils/WaitSpinLock.h>

#include "support/VirtualSlot.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <type_traits>

namespace Halden::Tavro::Utils
{

namespace
{

using TestSupport::virtualSlot;

// A virtual destructor takes slots 0 and 1.

TEST(SlotOrderTest, ManagerIsReachedThroughItsInterfaces)
{
    EXPECT_TRUE(std::has_virtual_destructor_v<PeriodicCallerManagerIfc>);
    EXPECT_EQ(virtualSlot(&PeriodicCallerManagerIfc::add), 2);
    EXPECT_EQ(virtualSlot(&PcmTokenToManagerIfc::remove), 0);
    EXPECT_EQ(virtualSlot(&PeriodicCallerManager::add), 2);
    EXPECT_EQ(virtualSlot(&PeriodicCallerManager::remove), 3);
}

TEST(SlotOrderTest, SystemTimeHandlerHasTheSlotsOfItsInterface)
{
    EXPECT_TRUE(std::has_virtual_destructor_v<SystemTimeHandlerIfc>);
    EXPECT_EQ(virtualSlot(&SystemTimeHandlerIfc::hasAbsoluteTime), 2);
    EXPECT_EQ(virtualSlot(&SystemTimeHandlerIfc::initialize), 3);
    EXPECT_EQ(virtualSlot(&SystemTimeHandler::hasAbsoluteTime), 2);
    EXPECT_EQ(virtualSlot(&SystemTimeHandler::initialize), 3);
}

TEST(SlotOrderTest, TokenAndSpinWaitHaveOnlyTheirDestructors)
{
    EXPECT_TRUE(std::has_virtual_destructor_v<PeriodicCallerManagerTokenIfc>);
    EXPECT_TRUE(std::has_virtual_destructor_v<WaitSpinLock>);
    EXPECT_EQ(sizeof(PeriodicCallerManagerTokenIfc), sizeof(void*));
    EXPECT_EQ(sizeof(WaitSpinLock), sizeof(void*));
}

TEST(SlotOrderTest, TypedDataHasTheSameLayoutOnEveryTarget)
{
    EXPECT_EQ(offsetof(RuntimeTypedData, value), 0U);
    EXPECT_EQ(offsetof(RuntimeTypedData, type), 8U);
    EXPECT_EQ(sizeof(RuntimeTypedData), 16U);
}

}

}
