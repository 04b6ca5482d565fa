#pragma once

#include "support/CallDouble.h"

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <utility>

/// What the system tells of threads, and its way to make them. For test programs that list
/// scheduling/ThreadDoubles.cpp among their sources.
namespace Halden::Tavro::TestSupport
{

using ThreadFunction = void* (*)(void*);

extern CallDouble<int(pthread_t*, pthread_attr_t const*, ThreadFunction, void*)> pthreadCreate;

/// What std::thread::hardware_concurrency() answers, 2 at first.
extern std::atomic<unsigned> hardwareThreads;

/// Keeps threads that are made while it lives from starting their work, until it ends or releases them.
class HeldThreads
{
public:
    HeldThreads()
    {
        pthreadCreate.replace([this](pthread_t* thread, pthread_attr_t const* attributes, ThreadFunction function,
                                     void* argument) { return create(thread, attributes, function, argument); });
    }
    ~HeldThreads()
    {
        pthreadCreate.reset();
        release();
    }

    HeldThreads(HeldThreads const&) = delete;
    HeldThreads& operator=(HeldThreads const&) = delete;

    void release()
    {
        if (!std::exchange(released, true))
        {
            gate.set_value();
        }
    }

private:
    struct Start
    {
        std::shared_future<void> opened;
        ThreadFunction function;
        void* argument;
    };

    int create(pthread_t* thread, pthread_attr_t const* attributes, ThreadFunction function, void* argument) const
    {
        auto start = std::make_unique<Start>(Start{opened, function, argument});
        int const error = pthreadCreate.passOn(thread, attributes, &HeldThreads::run, start.get());
        if (error == 0)
        {
            static_cast<void>(start.release()); // run() owns it now
        }
        return error;
    }

    static void* run(void* argument)
    {
        std::unique_ptr<Start> const start(static_cast<Start*>(argument));
        start->opened.wait_for(std::chrono::seconds(10));
        return start->function(start->argument);
    }

    std::promise<void> gate;
    std::shared_future<void> opened{gate.get_future()};
    bool released{false};
};

}
