#include <utils/PcmItem.h>

#include "build/Hardened.h"
#include "log/Log.h"

#include <algorithm>
#include <exception>
#include <utility>

namespace Halden::Tavro::Utils
{

namespace
{

using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// What still fits the clock: 292 years.
constexpr milliseconds longestPeriod = std::chrono::duration_cast<milliseconds>(steady_clock::duration::max());

// The builtin operations leave the field what it is in both builds, and read and write it whole on 32 bits, too.

void store(steady_clock::time_point& field, steady_clock::time_point value)
{
    if constexpr (hardened)
    {
        __atomic_store(&field, &value, __ATOMIC_RELAXED);
    }
    else
    {
        field = value;
    }
}

steady_clock::time_point load(steady_clock::time_point const& field)
{
    if constexpr (hardened)
    {
        steady_clock::time_point value;
        __atomic_load(&field, &value, __ATOMIC_RELAXED);
        return value;
    }
    else
    {
        return field; // kept: [torn-due-time] without the lock under which it is written
    }
}

/// Whether an exception is the first to be logged. Of several at once, only one is in the hardened build.
bool isFirst(bool& alreadyLogged)
{
    if constexpr (hardened)
    {
        return !__atomic_exchange_n(&alreadyLogged, true, __ATOMIC_RELAXED);
    }
    else
    {
        return !alreadyLogged; // kept: [two-first-exceptions] outside the lock
    }
}

/// Once the first one has been logged. The hardened build has noted it before.
void noteLogged(bool& alreadyLogged)
{
    if constexpr (!hardened)
    {
        alreadyLogged = true; // kept: [two-first-exceptions] those that come during the log call are first ones as well
    }
}

}

PcmItem::PcmItem(std::function<void()> function, std::chrono::milliseconds period)
    : Log::Logger("Halden::Tavro::Utils::PcmItem", "", std::make_shared<Log::LoggerImpl>())
    , period_(period)
    , function(std::move(function))
{
}

PcmItem::~PcmItem() = default;

void PcmItem::execute()
{
    try
    {
        std::lock_guard const lock(executionMutex);
        // kept: [refused-start-counts] before the test; a refused execution moves the due time on, or it would be due
        // again at once
        store(lastExecutionStart, steady_clock::now());
        if (executionForbidden)
        {
            TAVRO_LOG_TO(*this, Log::Severity::Warning, "Execution of PCM item is forbidden");
            return;
        }
        function();
    }
    catch (std::exception const& exception)
    {
        if (!isFirst(exceptionAlreadyLogged))
        {
            TAVRO_LOG_TO(*this, Log::Severity::Trace, "PcmItem execution threw exception. Exception: %s.\n",
                         exception.what());
            return;
        }
        TAVRO_LOG_TO(*this, Log::Severity::Error,
                     "PcmItem execution threw exception. Exception: %s.\n"
                     "Further exceptions will be logged with trace level",
                     exception.what());
        noteLogged(exceptionAlreadyLogged);
    }
    catch (...)
    {
        if (!isFirst(exceptionAlreadyLogged))
        {
            TAVRO_LOG_TO(*this, Log::Severity::Trace, "PcmItem execution threw unknown exception.");
            return;
        }
        TAVRO_LOG_TO(*this, Log::Severity::Error,
                     "PcmItem execution threw unknown exception. Further exceptions will be logged with trace level");
        noteLogged(exceptionAlreadyLogged);
    }
}

bool PcmItem::isDueWithin(std::chrono::milliseconds within) const
{
    steady_clock::time_point const due = nextDueTime();
    return due < steady_clock::now() + within;
}

steady_clock::time_point PcmItem::nextDueTime() const
{
    steady_clock::time_point const start = load(lastExecutionStart);
    steady_clock::duration const period = std::clamp(period_, -longestPeriod, longestPeriod);
    bool const fits = period <= steady_clock::duration::zero() || start <= steady_clock::time_point::max() - period;
    return fits ? start + period : steady_clock::time_point::max();
}

std::chrono::milliseconds PcmItem::period() const
{
    return period_;
}

void PcmItem::forbidFurtherExecutions()
{
    executionForbidden = true;
}

void PcmItem::waitEndOfExecutionIfAny()
{
    std::lock_guard const lock(executionMutex);
}

}
