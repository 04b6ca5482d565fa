// Hands any bytes to the address monitor as what the kernel has sent.

#include <log/Logger.h>
#include <utils/LocalIps.h>

#include "fuzz/Fuzz.h"

#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <utility>

// The machine's own addresses stay out of it: none at the start, and a socket that gets no events.
extern "C"
{

    int getifaddrs(ifaddrs** list) noexcept
    {
        *list = nullptr;
        return 0;
    }

    int bind(int /*descriptor*/, sockaddr const* /*address*/, socklen_t /*length*/) noexcept
    {
        return 0;
    }
}

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;

/// Takes away what is handled once it has failed a few times, for nothing else ends the retry of the exact build. The
/// hardened one goes on by itself, and is left to.
class RetryLimit : public Log::LoggerImplIfc
{
public:
    void watch(char* input, std::size_t inputSize)
    {
        begin = input;
        size = inputSize;
        failures = 0;
    }

    void write(Log::Record const& record) override
    {
        if (record.text.rfind("processAllNetlinkMessages: ignoring exception ", 0) == 0 && ++failures == 3 &&
            !isHardened())
        {
            std::memset(begin, 0, size);
        }
    }

private:
    char* begin{nullptr};
    std::size_t size{0};
    int failures{0};
};

class Monitor : private virtual Log::Logger, public LocalIps
{
public:
    Monitor()
        : Log::Logger("LocalIps", "", std::make_shared<Log::LoggerImpl>())
        , LocalIps([this](auto const& /*ip*/) { ++announced; }, [this](auto const& /*ip*/) { --announced; }, {})
    {
    }

    void handle(char const* input, std::size_t size)
    {
        processAllNetlinkMessages(reinterpret_cast<nlmsghdr const*>(input), static_cast<int>(size));
    }

    /// What is announced is what is listed, and nothing is listed twice.
    void check()
    {
        auto const list = addresses();
        require(list.size() == announced);
        for (std::size_t i = 0; i < list.size(); ++i)
        {
            for (std::size_t j = 0; j < i; ++j)
            {
                require(!(list[i] == list[j]));
            }
        }
    }

    /// So that each input starts with an empty list.
    void clear()
    {
        for (auto const& ip : addresses())
        {
            handleLostAddress(ip);
        }
        require(addresses().empty() && announced == 0);
    }

private:
    std::size_t announced{0};
};

}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    static auto const limit = []
    {
        auto sink = std::make_shared<RetryLimit>();
        Log::LoggerProxy::instance().setSink(sink);
        Log::LoggerProxy::instance().setThreshold(Log::Severity::Trace);
        return sink;
    }();
    static Monitor monitor;
    if (size == 0)
    {
        return 0;
    }

    std::size_t const misalignment = data[0] % alignof(nlmsghdr);
    auto const buffer =
        std::make_unique<char[]>(misalignment + size - 1); // ends with the input: reads past it are seen
    char* const input = buffer.get() + misalignment;
    std::copy(data + 1, data + size, input);
    limit->watch(input, size - 1);
    monitor.handle(input, size - 1);
    monitor.check();
    monitor.clear();
    return 0;
}

}
