#include <utils/testing/LogCapture.h>

#include <algorithm>
#include <ctime>
#include <future>
#include <iterator>
#include <mutex>
#include <thread>
#include <utility>

namespace Halden::Tavro::Utils::Testing
{

namespace
{

/// Somebody who waits for a line.
struct Watch
{
    LogCapture::Predicate const line;
    std::promise<void> seen; // set once
};

std::chrono::nanoseconds sinceBoot()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

Log::Severity currentThreshold()
{
    auto const& proxy = Log::LoggerProxy::instance();
    auto severity = Log::Severity::Trace;
    while (severity != Log::Severity::Critical && !proxy.isSeverityEnabled(severity))
    {
        severity = static_cast<Log::Severity>(static_cast<int>(severity) - 1);
    }
    return severity;
}

}

class LogCapture::Sink : public Log::LoggerImplIfc
{
public:
    void write(Log::Record const& record) override
    {
        std::lock_guard const lock(mutex);
        lines.push_back({record.severity, std::string(record.logger), std::string(record.text)});
        tellThoseWhoWaitFor(lines.back());
        if (callback)
        {
            callback(lines.back());
        }
    }

    /// @return null when the line has come already
    std::shared_ptr<Watch> watchFor(Predicate const& line)
    {
        std::lock_guard const lock(mutex);
        if (std::any_of(lines.begin(), lines.end(), line))
        {
            return nullptr;
        }
        return watches.emplace_back(std::make_shared<Watch>(Watch{line, {}}));
    }

    void forget(std::shared_ptr<Watch> const& watch)
    {
        std::lock_guard const lock(mutex);
        watches.erase(std::remove(watches.begin(), watches.end(), watch), watches.end());
    }

    std::mutex mutex;                             // held while predicates and the callback run
    std::vector<LogLine> lines;                   // guarded by mutex
    std::function<void(LogLine const&)> callback; // guarded by mutex

private:
    void tellThoseWhoWaitFor(LogLine const& line)
    {
        auto const seen =
            std::partition(watches.begin(), watches.end(), [&line](auto const& watch) { return !watch->line(line); });
        std::for_each(seen, watches.end(), [](auto const& watch) { watch->seen.set_value(); });
        watches.erase(seen, watches.end());
    }

    std::vector<std::shared_ptr<Watch>> watches; // guarded by mutex
};

bool operator==(LogLine const& left, LogLine const& right)
{
    return left.severity == right.severity && left.logger == right.logger && left.text == right.text;
}

bool operator!=(LogLine const& left, LogLine const& right)
{
    return !(left == right);
}

std::ostream& operator<<(std::ostream& stream, LogLine const& line)
{
    return stream << static_cast<int>(line.severity) << " [" << line.logger << "] " << line.text;
}

LogCapture::LogCapture(Log::Severity mostVerbose)
    : sink(std::make_shared<Sink>())
    , sinkBefore(Log::LoggerProxy::instance().setSink(sink))
    , thresholdBefore(currentThreshold())
{
    Log::LoggerProxy::instance().setThreshold(mostVerbose);
}

LogCapture::~LogCapture()
{
    Log::LoggerProxy::instance().setThreshold(thresholdBefore);
    Log::LoggerProxy::instance().setSink(sinkBefore);
}

std::vector<LogLine> LogCapture::lines() const
{
    std::lock_guard const lock(sink->mutex);
    return sink->lines;
}

std::vector<LogLine> LogCapture::linesOf(std::string const& logger) const
{
    std::vector<LogLine> result;
    std::lock_guard const lock(sink->mutex);
    std::copy_if(sink->lines.begin(), sink->lines.end(), std::back_inserter(result),
                 [&logger](auto const& line) { return line.logger == logger; });
    return result;
}

std::size_t LogCapture::count(Predicate const& line) const
{
    std::lock_guard const lock(sink->mutex);
    return static_cast<std::size_t>(std::count_if(sink->lines.begin(), sink->lines.end(), line));
}

bool LogCapture::waitFor(Predicate const& line, std::chrono::milliseconds limit) const
{
    auto const watch = sink->watchFor(line);
    if (watch == nullptr)
    {
        return true;
    }
    // Not by a condition variable: tests replace the functions beneath those to look into a scheduler's sleep. And with
    // no std::chrono clock: where a test has put one ahead or back, the system would wait for ever or not at all.
    auto const future = watch->seen.get_future();
    auto const isSeen = [&future] { return future.wait_for(std::chrono::seconds(0)) == std::future_status::ready; };
    auto const deadline = sinceBoot() + limit;
    while (!isSeen() && sinceBoot() < deadline)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    sink->forget(watch);
    return isSeen();
}

void LogCapture::clear()
{
    std::lock_guard const lock(sink->mutex);
    sink->lines.clear();
}

void LogCapture::onLine(std::function<void(LogLine const&)> callback)
{
    std::lock_guard const lock(sink->mutex);
    sink->callback = std::move(callback);
}

}
