// DisabledLogCall COUNT: makes so many disabled log calls, for callgrind to count their instructions.

#include "log/Log.h"
#include "support/AllocationCount.h"

#include <cstdio>
#include <cstdlib>

using namespace Halden::Tavro;

int main(int argc, char** argv)
{
    if (argc != 2)
    {
        std::fprintf(stderr, "usage: %s COUNT\n", argv[0]);
        return 2;
    }
    Log::Logger const logger("DisabledLogCall", "", nullptr);
    long const count = std::atol(argv[1]);

    std::size_t const before = Bench::allocations();
    for (long call = 0; call < count; ++call)
    {
        TAVRO_LOG_TO(logger, Log::Severity::Trace, "~step %d of %s", 5, "nine");
    }
    std::printf("allocations %zu\n", Bench::allocations() - before);
}
