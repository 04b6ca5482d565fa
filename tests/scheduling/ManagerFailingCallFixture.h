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
        token = manager->add([held = held] {}, std::chrono::hours(24 * 365 * 100));
    }

    std::string destroyAll()
    {
        token.reset();
        bool const isRegistered = held.use_count() > 1;
        if (manager != nullptr)
        {
            OtherThreads::awaitRest(); // a request in the moment before the scheduler sleeps may be lost
            manager.reset();
        }
        return isRegistered ? "a registration" : "";
    }

    std::shared_ptr<int> const held = std::make_shared<int>(0);
    std::shared_ptr<Utils::PeriodicCallerManager> manager;
    Token token;
};

}
