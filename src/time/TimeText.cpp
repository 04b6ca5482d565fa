#include <utils/TimeText.h>

#include <ctime>
#include <iomanip>
#include <sstream>

namespace Halden::Tavro::Utils
{

std::string toUtcString(std::chrono::system_clock::time_point const& tp)
{
    auto const sinceEpoch = tp.time_since_epoch();
    auto const seconds = static_cast<std::time_t>(std::chrono::duration_cast<std::chrono::seconds>(sinceEpoch).count());
    auto const milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(sinceEpoch).count() % 1000;

    tzset(); // unlike localtime, localtime_r need not look at TZ
    std::tm brokenDown{};
    // kept: [local-time-with-z] local time, which readers of these texts have always got
    localtime_r(&seconds, &brokenDown);

    std::ostringstream text;
    // kept: [before-1970] the milliseconds are unsigned, no clock in use is before 1970
    text << std::put_time(&brokenDown, "%Y-%m-%dT%H:%M:%S") << "." << std::setfill('0') << std::setw(3)
         << static_cast<unsigned int>(milliseconds) << "Z";
    return text.str();
}

}
