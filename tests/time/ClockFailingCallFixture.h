#pragma once

#include "support/FailingCalls.h"
#include "time/SystemTimeHandlerFixture.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace Halden::Tavro::TestSupport
{

/// A clock device that can be read, and a handler with real timers that polls once; either with calls that fail.
class ClockFailingCallFixture : public SystemTimeHandlerFixture
{
protected:
    ClockFailingCallFixture()
    {
        useRealTimers();
        timerfdCreateDouble.replace([this](int clock, int flags) { return createTimer(clock, flags); });
        readDouble.replace(nullptr);
        closeDouble.replace([this](int descriptor)
                            { return descriptor == rtc ? closeDevice() : closeTimer(descriptor); });
        events.reserve(64); // for an allocation afterwards would count
        timers.reserve(64);
    }

    ~ClockFailingCallFixture() override
    {
        for (int const descriptor : timers)
        {
            closeDouble.passOn(descriptor);
        }
    }

    /// For devRtcValid() alone.
    void readDevice()
    {
        devices = {"/dev/rtc0"};
        bool const isValid = Utils::devRtcValid("/dev/rtc0");
        devices.clear();
        if (!isValid)
        {
            throw std::runtime_error("not valid");
        }
    }

    std::string deviceLeft()
    {
        devices.clear();
        bool const wasOpened = ioctlDouble.count() > ioctlsBefore; // it is asked as soon as it is open
        ioctlsBefore = ioctlDouble.count();
        bool const wasClosed = !events.empty();
        events.clear();
        return wasOpened && !wasClosed ? "an open device" : "";
    }

    void initializeAndPoll()
    {
        handler = std::make_unique<OpenHandler>(manager);
        handler->initialize();
        if (manager->function)
        {
            manager->function();
        }
    }

    std::string destroyHandler()
    {
        handler.reset();
        manager->function = nullptr;
        return "";
    }

    static std::vector<FailingCalls> failuresOfDevice()
    {
        return {callsOf("stat", statDouble, -1, EACCES), callsOf("open", openDouble, -1, EACCES),
                callsOf("ioctl", ioctlDouble, -1, EINVAL), callsOf("mktime", mktimeDouble, -1, EOVERFLOW),
                doneCallsOf("close", closeDouble, -1, EIO)};
    }

    static std::vector<FailingCalls> failuresOfTimer()
    {
        return {callsOf("timerfd_create", timerfdCreateDouble, -1, EMFILE),
                callsOf("timerfd_settime", timerfdSettimeDouble, -1, EINVAL)};
    }

    int closeDevice()
    {
        events.emplace_back("close");
        return 0;
    }

    int createTimer(int clock, int flags)
    {
        timerUnderTest = timerfdCreateDouble.passOn(clock, flags);
        timers.push_back(timerUnderTest);
        return timerUnderTest;
    }

    int closeTimer(int descriptor)
    {
        timerUnderTest = -1;
        timers.erase(std::remove(timers.begin(), timers.end(), descriptor), timers.end());
        return closeDouble.passOn(descriptor);
    }

    std::unique_ptr<OpenHandler> handler;
    std::size_t ioctlsBefore{0};
    std::vector<int> timers; // those that are open
};

}
