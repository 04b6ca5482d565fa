#include <utils/PcmItem.h>

#include "log/Log.h"

#include <exception>
#include <utility>

namespace Halden::Tavro::Utils
{

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
        lastExecutionStart = std::chrono::steady_clock::now(); // before the test: a refused execution counts as well
        if (executionForbidden)
        {
            TAVRO_LOG_TO(*this, Log::Severity::Warning, "Execution of PCM item is forbidden");
            return;
        }
        function();
    }
    catch (std::exception const& exception)
    {
        if (exceptionAlreadyLogged)
        {
            TAVRO_LOG_TO(*this, Log::Severity::Trace, "PcmItem execution threw exception. Exception: %s.\n",
                         exception.what());
            return;
        }
        TAVRO_LOG_TO(*this, Log::Severity::Error,
                     "PcmItem execution threw exception. Exception: %s.\n"
                     "Further exceptions will be logged with trace level",
                     exception.what());
        exceptionAlreadyLogged = true;
    }
    catch (...)
    {
        if (exceptionAlreadyLogged)
        {
            TAVRO_LOG_TO(*this, Log::Severity::Trace, "PcmItem execution threw unknown exception.");
            return;
        }
        TAVRO_LOG_TO(*this, Log::Severity::Error,
                     "PcmItem execution threw unknown exception. Further exceptions will be logged with trace level");
        exceptionAlreadyLogged = true;
    }
}

bool PcmItem::isDueWithin(std::chrono::milliseconds within) const
{
    std::chrono::steady_clock::time_point const due = nextDueTime();
    return due < std::chrono::steady_clock::now() + within;
}

std::chrono::steady_clock::time_point PcmItem::nextDueTime() const
{
    return lastExecutionStart + period_;
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
