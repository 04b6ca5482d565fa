#include "Addresses.h"

#include <log/Logger.h>

#include <atomic>
#include <mutex>
#include <utility>

namespace DeviceService
{

using namespace Halden::Tavro;

enum class Following
{
    Yes,
    Stuck,   // the monitor tries one event without end, see LocalIps.h
    Finished // by the destructor
};

struct Addresses::State
{
    void change(std::string const& what)
    {
        std::lock_guard const lock(mutex);
        lastChange = what;
    }

    std::mutex mutex;
    std::string lastChange; // guarded by mutex
    std::atomic<Following> following{Following::Yes};
};

namespace
{

/// Passes on all records but those that say nothing: of an event that is tried without end, and of the socket that is
/// closed under the receiver thread in the end.
class WithoutNoise : public Log::LoggerImplIfc
{
public:
    explicit WithoutNoise(std::shared_ptr<std::atomic<Following>> following)
        : following(std::move(following))
    {
    }

    void passOnTo(std::shared_ptr<Log::LoggerImplIfc> sink) { next = std::move(sink); }

    void write(Log::Record const& record) override
    {
        bool const ofMonitor = record.logger == "LocalIps";
        auto const present = following->load();
        bool const closing = present == Following::Finished && record.severity == Log::Severity::Error;
        if (!ofMonitor || !(closing || present == Following::Stuck))
        {
            next->write(record);
        }
        if (ofMonitor && record.text.rfind("processAllNetlinkMessages: ignoring exception ", 0) == 0)
        {
            auto expected = Following::Yes;
            following->compare_exchange_strong(expected, Following::Stuck);
        }
    }

private:
    std::shared_ptr<std::atomic<Following>> following;
    std::shared_ptr<Log::LoggerImplIfc> next;
};

}

Addresses::Addresses()
    : state(std::make_shared<State>())
{
    auto const sink = std::make_shared<WithoutNoise>(std::shared_ptr<std::atomic<Following>>(state, &state->following));
    sink->passOnTo(Log::LoggerProxy::instance().setSink(sink));
    monitor = std::make_unique<Utils::LocalIps>([state = state](auto const& ip) { state->change("+" + ip.string()); },
                                                [state = state](auto const& ip) { state->change("-" + ip.string()); },
                                                [state = state] { state->change("unknown"); });
    state->change(""); // what was there at the start is no change
}

Addresses::~Addresses()
{
    auto expected = Following::Yes;
    if (!state->following.compare_exchange_strong(expected, Following::Finished))
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
    return text + (state->following == Following::Stuck ? ", no longer followed" : "");
}

}
