#pragma once

#include "net/Monitor.h"
#include "support/WaitFor.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

namespace Halden::Tavro::TestSupport
{

/// What monitors have reported, in order.
class Reports
{
public:
    Monitor::AddressCallback as(char const* sign)
    {
        return [this, sign](Utils::IpAddress const& ip) { add(sign + ip.string()); };
    }

    void add(std::string const& text)
    {
        std::lock_guard const lock(mutex);
        texts.push_back(text);
    }

    std::vector<std::string> all() const
    {
        std::lock_guard const lock(mutex);
        return texts;
    }

    /// @return false when there are fewer after a minute
    bool waitForCount(std::size_t count) const
    {
        return TestSupport::waitFor([&] { return all().size() >= count; }, std::chrono::minutes(1));
    }

    bool waitForText(std::string const& text) const
    {
        auto const isThere = [&]
        {
            auto const present = all();
            return std::find(present.begin(), present.end(), text) != present.end();
        };
        return TestSupport::waitFor(isThere, std::chrono::minutes(1));
    }

private:
    mutable std::mutex mutex;
    std::vector<std::string> texts; // guarded by mutex
};

}
