// Lets the commands of the firmware version print anything, in any pieces.
//
// Input: three bytes with what the system answers, and a piece of output that the second repeats.

#include <log/Logger.h>
#include <utils/FirmwareVersionTavro.h>

#include "fuzz/Fuzz.h"
#include "support/NullSink.h"

#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;

/// What a command prints.
struct Output
{
    std::string text;
    std::size_t piece{1}; // of what one read gives
    bool fails{false};    // at its end
    bool starts{true};
    std::size_t at{0};
    int open{0};
};

Output printed;

ssize_t readPrinted(void* /*cookie*/, char* buffer, std::size_t size)
{
    std::size_t const count = std::min({size, printed.piece, printed.text.size() - printed.at});
    if (count == 0 && printed.fails)
    {
        errno = EIO;
        return -1;
    }
    std::copy_n(printed.text.data() + printed.at, count, buffer);
    printed.at += count;
    return static_cast<ssize_t>(count);
}

}

extern "C"
{

    std::FILE* popen(char const* /*command*/, char const* mode)
    {
        require(std::string(mode) == (isHardened() ? "re" : "r"));
        if (!printed.starts)
        {
            errno = ENOMEM;
            return nullptr;
        }
        printed.at = 0;
        ++printed.open;
        return fopencookie(nullptr, "r", {readPrinted, nullptr, nullptr, nullptr});
    }

    int pclose(std::FILE* file)
    {
        --printed.open;
        return std::fclose(file);
    }
}

namespace
{

/// Nothing where the command counts as failed.
std::optional<std::string> expectedText()
{
    std::string text = printed.text.substr(0, 2047);
    if (!printed.starts || text.empty())
    {
        return std::nullopt;
    }
    text.resize(std::strlen(text.c_str()));
    text.erase(std::remove(text.begin(), text.end(), '\n'), text.end());
    return text;
}

}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    Log::LoggerProxy::instance().setThreshold(Log::Severity::Trace);
    // Each line is formatted, and dropped.
    Log::LoggerProxy::instance().setSink(std::make_shared<NullSink>());
    FuzzInput input(data, size);
    printed = Output{};
    unsigned const flags = input.byte();
    printed.fails = (flags & 1U) != 0;
    printed.starts = (flags & 2U) == 0;
    std::size_t const times = 1 + input.byte();
    printed.piece = 1 + input.byte() * std::size_t{32};
    std::string const piece = input.rest();
    for (std::size_t i = 0; i < times && printed.text.size() < 4096; ++i)
    {
        printed.text += piece;
    }

    auto const expected = expectedText();
    FirmwareVersionTavro sut;
    require(sut.init() == expected.has_value());
    require(sut.version() == expected.value_or(""));
    require(sut.compatibleId() == expected.value_or(""));
    require(printed.open == 0);
    return 0;
}

}
