#pragma once

#include "net/LocalIpsFixture.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace Halden::Tavro::TestSupport
{

/// A copy of the bytes, so far behind an aligned place. It ends with them, so that the address sanitizer sees every
/// read past their end.
class Buffer
{
public:
    explicit Buffer(std::string const& bytes, std::size_t misalignment = 0)
        : memory(new char[misalignment + bytes.size()])
        , place(memory.get() + misalignment)
    {
        std::memcpy(place, bytes.data(), bytes.size());
    }

    nlmsghdr const* messages() const { return reinterpret_cast<nlmsghdr const*>(place); }

    void overwrite(std::size_t at, std::string const& bytes) { std::memcpy(place + at, bytes.data(), bytes.size()); }

private:
    std::unique_ptr<char[]> memory;
    char* place;
};

/// A monitor that is handed buffers, as if they had been received.
class MessageFixture : public LocalIpsFixture
{
protected:
    MessageFixture()
    {
        EXPECT_TRUE(kernel.waitUntilIdle());
        capture.clear();
        capture.onLine(
            [](LogLine const& each)
            {
                if (each.text.rfind("processAllNetlinkMessages: ignoring exception", 0) == 0)
                {
                    std::abort(); // else the retry would fill the memory
                }
            });
    }

    void handle(std::string const& bytes, std::size_t misalignment = 0)
    {
        Buffer const buffer(bytes, misalignment);
        sut.processAllNetlinkMessages(buffer.messages(), static_cast<int>(bytes.size()));
    }

    std::vector<std::string> listAfter(std::string const& bytes)
    {
        for (auto const& ip : sut.addresses())
        {
            sut.handleLostAddress(ip);
        }
        handle(bytes);
        return addressesOf(sut);
    }

    /// The address of one message alone.
    std::string addressIn(std::string const& bytes)
    {
        Buffer const buffer(bytes);
        return sut.nlToIpAddress(buffer.messages()).string();
    }

    /// None of the messages holds an address, which is logged and thrown for each.
    void expectNoAddressIn(std::vector<std::string> const& messages)
    {
        std::string const text = "IFA message contains no RTA of type IFA_ADDRESS";
        expect(Log::Severity::Error, text);
        for (auto const& each : messages)
        {
            capture.clear();
            EXPECT_THAT([&] { addressIn(each); }, testing::ThrowsMessage<std::invalid_argument>(
                                                      testing::StrEq("IFA message contains no IP address")));
            EXPECT_THAT(capture.lines(), testing::ElementsAre(line(Log::Severity::Error, text)));
        }
    }

    static inline std::string const noAddress =
        "processAllNetlinkMessages: ignoring exception IFA message contains no IP address";

    std::function<void()> onNewAddress = [] {};
    Monitor sut{[this](auto const& /*ip*/) { onNewAddress(); }};
};

inline std::string v4Message(std::string const& attributes)
{
    return addressMessage(RTM_NEWADDR, AF_INET, attributes);
}

}
