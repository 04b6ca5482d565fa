#pragma once

#include "support/WaitFor.h"

#include <atomic>
#include <chrono>
#include <future>

namespace Halden::Tavro::TestSupport
{

/// A call that stays inside until the test lets it go. Only the first one is held.
class HeldCall
{
public:
    HeldCall() = default;
    HeldCall(HeldCall const&) = delete;
    HeldCall& operator=(HeldCall const&) = delete;

    ~HeldCall() { release(); }

    void operator()()
    {
        if (calls++ == 0)
        {
            entered.set_value();
            becomesReady(gate.get_future(), std::chrono::seconds(20));
        }
    }

    bool awaitEntered() { return becomesReady(entering); }

    void release()
    {
        if (!released.exchange(true))
        {
            gate.set_value();
        }
    }

    int count() const { return calls; }

private:
    std::promise<void> entered;
    std::future<void> entering = entered.get_future();
    std::promise<void> gate;
    std::atomic<bool> released{false};
    std::atomic<int> calls{0};
};

}
