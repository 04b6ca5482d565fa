#pragma once

#include <utils/SystemTimeHandler.h>

#include <atomic>
#include <mutex>
#include <optional>

namespace Halden::Tavro::Utils::Testing
{

/// Believes the clock when the test says so.
///
///     SystemTimeHandlerStub systemTime;
///     systemTime.setAbsoluteTime(false);
///
/// Threads: any.
class SystemTimeHandlerStub : public SystemTimeHandlerIfc
{
public:
    /// From now on the answer of hasAbsoluteTime().
    void setAbsoluteTime(bool believed);

    /// @throws std::logic_error when the test has not set an answer yet
    bool hasAbsoluteTime() const override;

    /// Counts the calls, and changes nothing.
    void initialize() override;

    /// How often initialize() was called.
    int initializations() const;

private:
    mutable std::mutex mutex;
    std::optional<bool> absoluteTime; // guarded by mutex
    std::atomic<int> initialized{0};
};

}
