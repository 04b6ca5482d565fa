#pragma once

#include "support/WaitFor.h"

#include <chrono>
#include <cstddef>
#include <mutex>
#include <vector>

namespace Halden::Tavro::TestSupport
{

/// Values that other threads hand to the test, in their order.
template <typename Value>
class Recorded
{
public:
    void add(Value const& value)
    {
        std::lock_guard const lock(mutex);
        values.push_back(value);
    }

    std::vector<Value> all() const
    {
        std::lock_guard const lock(mutex);
        return values;
    }

    /// @return false when there are fewer after a minute
    bool waitForCount(std::size_t count) const
    {
        return waitFor([&] { return all().size() >= count; }, std::chrono::minutes(1));
    }

private:
    mutable std::mutex mutex;
    std::vector<Value> values; // guarded by mutex
};

}
