#pragma once

#include <array>
#include <cstddef>
#include <future>
#include <memory>
#include <thread>
#include <vector>

namespace Halden::Tavro::TestSupport
{

/// What eight threads have made, each as many as asked for, all from the same moment on.
template <typename Make>
auto madeAtOnce(std::size_t perThread, Make const& make)
{
    std::promise<void> start;
    auto const started = start.get_future().share();
    std::array<std::vector<decltype(make())>, 8> made;
    std::vector<std::thread> threads;
    for (auto& ofThread : made)
    {
        threads.emplace_back(
            [&, started]
            {
                started.wait();
                for (std::size_t i = 0; i < perThread; ++i)
                {
                    ofThread.push_back(make());
                }
            });
    }
    start.set_value();
    for (auto& thread : threads)
    {
        thread.join();
    }
    return made;
}

}
