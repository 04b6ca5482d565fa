#pragma once

#include "scheduling/Strategies.h"
#include "scheduling/ThreadDoubles.h"
#include "support/FailingCalls.h"
#include "support/OtherThreads.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

namespace Halden::Tavro::TestSupport
{

/// A manager and one of its functions, made with calls that fail.
class ManagerFailingCallFixture : public testing::TestWithParam<Strategy>
{
protected:
    ManagerFailingCallFixture()
    {
        pthreadCreate.reset();
        hardwareThreads = 1;
    }

    ~ManagerFailingCallFixture() override
    {
        pthreadCreate.reset();
        hardwareThreads = 2;
    }

    void makeManager()
    {
        manager = std::make_shared<Utils::PeriodicCallerManager>(GetParam(), "a name longer than any short string");
    }

    /// Whose function is not due before the test has ended.
    void makeManagerAndToken()
    {
        makeManager();
        // In the exact build a function that is added beside the scheduler's scan is a race. Another thread waits, for
        // this one's allocations fail.
        std::thread(OtherThreads::awaitRest).join();
        token = manager->add([held = held] {}, std::chrono::hours(24 * 365 * 100));
    }

    std::string destroyAll()
    {
        OtherThreads::awaitRest(); // likewise, and a request in the moment before the scheduler sleeps may be lost
        token.reset();
        bool const isRegistered = held.use_count() > 1;
        manager.reset();
        return isRegistered ? "a registration" : "";
    }

    std::shared_ptr<int> const held = std::make_shared<int>(0);
    std::shared_ptr<Utils::PeriodicCallerManager> manager;
    Token token;
};

}
