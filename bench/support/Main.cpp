#include "support/NullSink.h"

#include <benchmark/benchmark.h>

#include <future>
#include <memory>
#include <thread>

using namespace Halden::Tavro;

int main(int argc, char** argv)
{
    Log::LoggerProxy::instance().setSink(std::make_shared<TestSupport::NullSink>());

    // The C library spares a process with one thread the atomic operations of shared pointers. Services have more than
    // one, so every measurement here runs beside a second thread.
    std::promise<void> end;
    std::thread second([&end] { end.get_future().wait(); });

    benchmark::Initialize(&argc, argv);
    bool const understood = !benchmark::ReportUnrecognizedArguments(argc, argv);
    if (understood)
    {
        benchmark::RunSpecifiedBenchmarks();
    }

    end.set_value();
    second.join();
    return understood ? 0 : 1;
}
