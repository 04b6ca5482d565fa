#include "Addresses.h"

#include <log/Logger.h>

#include <atomic>
#include <mutex>
#include <utility>

namespace DeviceService
{

using namespace Halden::Tavro;

struct Addresses::State
{
    void change(std::string const& what)
    {
        std::lock_guard const lock(mutex);
        lastChange = what;
    }

    std::mutex mutex;
    std::string lastChange; // guarded by mutex
    std::atomic<bool> stuck{false};
};

namespace
{

/// Passes on all records but those of an event that the monitor tries without end, see LocalIps.h.
class WithoutRetries : public Log::LoggerImplIfc
{
public:
    explicit WithoutRetries(std::shared_ptr<std::atomic<bool>> stuck)
        : stuck(std::move(stuck))
    {
    }

    void passOnTo(std::shared_ptr<Log::LoggerImplIfc> sink) { next = std::move(sink); }

    void write(Log::Record const& record) override
    {
        bool const ofMonitor = record.logger == "LocalIps";
        if (!ofMonitor || !*stuck)
        {
            next->write(record);
        }
        if (ofMonitor && record.text.rfind("processAllNetlinkMessages: ignoring exception ", 0) == 0)
        {
            *stuck = true;
        }
    }

private:
    std::shared_ptr<std::atomic<bool>> stuck;
    std::shared_ptr<Log::LoggerImplIfc> next;
};

}

Addresses::Addresses()
    : state(std::make_shared<State>())
{
    auto const sink = std::make_shared<WithoutRetries>(std::shared_ptr<std::atomic<bool>>(state, &state->stuck));
    sink->passOnTo(Log::LoggerProxy::instance().setSink(sink));
    monitor = std::make_unique<Utils::LocalIps>([state = state](auto const& ip) { state->change("+" + ip.string()); },
                                                [state = state](auto const& ip) { state->change("-" + ip.string()); },
                                                [state = state] { state->change("unknown"); });
    state->change(""); // what was there at the start is no change
}

Addresses::~Addresses()
{
    if (state->stuck)
    {
        static_cast<void>(monitor.release());
    }
}

std::string Addresses::reading() const
{
    std::string text;
    for (auto const& ip : monitor->addresses())
    {
        if (!ip.isLoopback())
        {
            text += (text.empty() ? "" : " ") + ip.string();
        }
    }
    std::lock_guard const lock(state->mutex);
    text = text.empty() ? "none" : text;
    text += state->lastChange.empty() ? "" : ", last change " + state->lastChange;
    return text + (state->stuck ? ", no longer followed" : "");
}

}
