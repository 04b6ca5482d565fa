#include "process/PipeFixture.h"

namespace Halden::Tavro::TestSupport
{

std::atomic<bool> pipeUnderTest{false};
std::atomic<bool> pipeUseUnderTest{false};

CallDouble<int(int*)> pipeDouble{"pipe"};
CallDouble<int(int, int)> dup2Double{"dup2"};
CallDouble<int(int)> closeDouble{"close"};
CallDouble<std::FILE*(int, char const*)> fdopenDouble{"fdopen"};

extern "C"
{

    int pipe(int* ends) noexcept
    {
        return pipeUnderTest ? pipeDouble(ends) : pipeDouble.passOn(ends);
    }

    int dup2(int from, int to) noexcept
    {
        return pipeUseUnderTest ? dup2Double(from, to) : dup2Double.passOn(from, to);
    }

    int close(int descriptor)
    {
        return pipeUseUnderTest ? closeDouble(descriptor) : closeDouble.passOn(descriptor);
    }

    std::FILE* fdopen(int descriptor, char const* mode) noexcept
    {
        return pipeUseUnderTest ? fdopenDouble(descriptor, mode) : fdopenDouble.passOn(descriptor, mode);
    }
}

}
