#pragma once

#include <utils/SystemTimeHandler.h>

#include "time/ClockFixture.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace Halden::Tavro::TestSupport
{

/// Says when its destruction begins, before that of the token it holds.
class ReportingToken : public Utils::PeriodicCallerManagerTokenIfc
{
public:
    ReportingToken(std::unique_ptr<PeriodicCallerManagerTokenIfc> inner, std::function<void()> onDestruction)
        : inner(std::move(inner))
        , onDestruction(std::move(onDestruction))
    {
    }

    ReportingToken(ReportingToken const&) = delete;
    ReportingToken& operator=(ReportingToken const&) = delete;

    ~ReportingToken() override { onDestruction(); }

private:
    std::unique_ptr<PeriodicCallerManagerTokenIfc> inner;
    std::function<void()> onDestruction;
};

/// Keeps what is registered for the test to call.
class ManualManager : public Utils::PeriodicCallerManagerIfc
{
public:
    std::unique_ptr<Utils::PeriodicCallerManagerTokenIfc> add(std::function<void()> added,
                                                              std::chrono::duration<double> asked) override
    {
        function = std::move(added);
        period = asked;
        ++registered;
        duringAdd();
        return std::make_unique<ReportingToken>(nullptr,
                                                [this]
                                                {
                                                    ++destroyed;
                                                    onTokenDestruction();
                                                });
    }

    std::function<void()> function;
    std::chrono::duration<double> period{0};
    int registered{0};
    std::atomic<int> destroyed{0};
    std::function<void()> duringAdd = [] {};
    std::function<void()> onTokenDestruction = [] {};
};

/// Lets the first poll come at once: a function is first due a period after the start of the machine.
class ImpatientManager : public Utils::PeriodicCallerManagerIfc
{
public:
    explicit ImpatientManager(std::shared_ptr<Utils::PeriodicCallerManagerIfc> real)
        : real(std::move(real))
    {
    }

    std::unique_ptr<Utils::PeriodicCallerManagerTokenIfc> add(std::function<void()> function,
                                                              std::chrono::duration<double> /*period*/) override
    {
        return real->add(std::move(function), std::chrono::milliseconds(1));
    }

private:
    std::shared_ptr<Utils::PeriodicCallerManagerIfc> const real;
};

/// A handler whose protected operations a test may call.
class OpenHandler : public Utils::SystemTimeHandler
{
public:
    using SystemTimeHandler::pollTimeStatus;
    using SystemTimeHandler::rtcValid;
    using SystemTimeHandler::startSetClockDetection;
    using SystemTimeHandler::syncedByService;

    explicit OpenHandler(std::shared_ptr<Utils::PeriodicCallerManagerIfc> manager)
        : Log::Logger("SystemTime", "", std::make_shared<Log::LoggerImpl>())
        , SystemTimeHandler(std::move(manager))
    {
    }
};

/// A handler on that machine, and a manager that does nothing by itself.
class SystemTimeHandlerFixture : public ClockFixture
{
protected:
    void expectError(std::string const& text) { log.expect(isLine(Log::Severity::Error, "SystemTime", text)); }

    std::shared_ptr<ManualManager> manager = std::make_shared<ManualManager>();
    OpenHandler sut{manager};
};

}
