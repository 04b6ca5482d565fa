#include "scheduling/ThreadDoubles.h"

#include <thread>

namespace Halden::Tavro::TestSupport
{

CallDouble<int(pthread_t*, pthread_attr_t const*, ThreadFunction, void*)> pthreadCreate{"pthread_create"};
std::atomic<unsigned> hardwareThreads{2};

}

extern "C" int pthread_create(pthread_t* thread, pthread_attr_t const* attributes,
                              Halden::Tavro::TestSupport::ThreadFunction function, void* argument) noexcept
{
    return Halden::Tavro::TestSupport::pthreadCreate(thread, attributes, function, argument);
}

// The program's own, which the linker prefers to the standard library's, also in the libraries it uses.
unsigned std::thread::hardware_concurrency() noexcept
{
    return Halden::Tavro::TestSupport::hardwareThreads;
}
