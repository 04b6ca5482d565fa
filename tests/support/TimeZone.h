#pragma once

#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

namespace Halden::Tavro::TestSupport
{

/// The zone of this process, in the environment variable TZ. What was there before comes back in the end.
class TimeZone
{
public:
    TimeZone()
    {
        if (char const* const zone = std::getenv("TZ"))
        {
            before = zone;
        }
    }

    ~TimeZone()
    {
        if (before.has_value())
        {
            set(before->c_str());
        }
        else
        {
            unsetenv("TZ");
        }
        tzset();
    }

    TimeZone(TimeZone const&) = delete;
    TimeZone& operator=(TimeZone const&) = delete;

    /// Leaves it to the code under test to look, tzset(3).
    void set(char const* zone) { setenv("TZ", zone, 1); }

private:
    std::optional<std::string> before;
};

}
