#pragma once

#include <log/Logger.h>

#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Halden::Tavro::TestSupport
{

/// Keeps the records that it is given.
class KeepingSink : public Log::LoggerImplIfc
{
public:
    void write(Log::Record const& record) override
    {
        std::lock_guard const lock(mutex);
        kept.push_back({record.severity, std::string(record.logger), std::string(record.text)});
        times.push_back(record.time);
    }

    std::vector<LogLine> lines() const
    {
        std::lock_guard const lock(mutex);
        return kept;
    }

    std::chrono::system_clock::time_point timeOfLast() const
    {
        std::lock_guard const lock(mutex);
        return times.back();
    }

private:
    mutable std::mutex mutex;
    std::vector<LogLine> kept;                                // guarded by mutex
    std::vector<std::chrono::system_clock::time_point> times; // guarded by mutex
};

/// A sink of the whole process that keeps what it is given; threshold and sink are those of the start afterwards.
class LoggerFixture : public testing::Test
{
protected:
    LoggerFixture() { proxy.setSink(processWide); }

    ~LoggerFixture() override
    {
        proxy.setThreshold(Log::Severity::Info);
        proxy.setSink(nullptr);
    }

    Log::LoggerProxy& proxy = Log::LoggerProxy::instance();
    std::shared_ptr<KeepingSink> const processWide = std::make_shared<KeepingSink>();
};

}
