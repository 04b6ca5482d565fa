// What a query of the firmware leaves behind when one of its calls fails.

#include <utils/FirmwareVersionTavro.h>

#include "support/FailingCalls.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <stdexcept>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using testing::IsEmpty;

CallDouble<std::FILE*(char const*, char const*)> popenDouble{"popen"};
CallDouble<std::size_t(void*, std::size_t, std::size_t, std::FILE*)> freadDouble{"fread"};
CallDouble<int(std::FILE*)> pcloseDouble{"pclose"};

}

extern "C"
{

    std::FILE* popen(char const* command, char const* mode)
    {
        return popenDouble(command, mode);
    }

    std::size_t fread(void* buffer, std::size_t size, std::size_t count, std::FILE* file)
    {
        return freadDouble(buffer, size, count, file);
    }

    int pclose(std::FILE* file)
    {
        return pcloseDouble(file);
    }
}

namespace
{

/// Opens the step to the test.
class Steps : public FirmwareVersionTavro
{
public:
    using FirmwareVersionTavro::execGetStdout;

    Steps()
        : Log::Logger("steps", "", std::make_shared<Log::LoggerImpl>())
    {
    }
};

TEST(FirmwareVersionTavroFailingCallTest, NoCallThatFailsLeavesTheCommandOrAnythingElse)
{
    std::FILE* const none = nullptr;
    auto const query = []
    {
        if (Steps().execGetStdout("echo a version that fits no short string") != "a version that fits no short string")
        {
            throw std::runtime_error("not read");
        }
    };

    EXPECT_THAT(leftByFailingCalls({callsOf("popen", popenDouble, none, EMFILE),
                                    callsOf("fread", freadDouble, std::size_t{0}, EIO),
                                    doneCallsOf("pclose", pcloseDouble, -1, ECHILD), allocations()},
                                   query),
                IsEmpty());
}

}

}
