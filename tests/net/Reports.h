#pragma once

#include "net/Monitor.h"
#include "support/Recorded.h"
#include "support/WaitFor.h"

#include <algorithm>
#include <chrono>
#include <string>

namespace Halden::Tavro::TestSupport
{

/// What monitors have reported, in order.
class Reports : public Recorded<std::string>
{
public:
    Monitor::AddressCallback as(char const* sign)
    {
        return [this, sign](Utils::IpAddress const& ip) { add(sign + ip.string()); };
    }

    /// @return false when it has not come after a minute
    bool waitForText(std::string const& text) const
    {
        auto const isThere = [&]
        {
            auto const present = all();
            return std::find(present.begin(), present.end(), text) != present.end();
        };
        return waitFor(isThere, std::chrono::minutes(1));
    }
};

}
