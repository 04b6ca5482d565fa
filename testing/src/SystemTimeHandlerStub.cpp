#include <utils/testing/SystemTimeHandlerStub.h>

#include <stdexcept>

namespace Halden::Tavro::Utils::Testing
{

void SystemTimeHandlerStub::setAbsoluteTime(bool believed)
{
    std::lock_guard const lock(mutex);
    absoluteTime = believed;
}

bool SystemTimeHandlerStub::hasAbsoluteTime() const
{
    std::lock_guard const lock(mutex);
    if (!absoluteTime)
    {
        throw std::logic_error("hasAbsoluteTime() was asked before the test has called setAbsoluteTime()");
    }
    return *absoluteTime;
}

void SystemTimeHandlerStub::initialize()
{
    ++initialized;
}

int SystemTimeHandlerStub::initializations() const
{
    return initialized;
}

}
