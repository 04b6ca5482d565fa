#pragma once

#include <utils/IpAddress.h>

#include "support/LogCapture.h"

#include <gmock/gmock.h>

#include <arpa/inet.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace Halden::Tavro::TestSupport
{

inline sockaddr_in v4Source(std::array<std::uint8_t, 4> const& bytes, std::uint16_t port = 0)
{
    sockaddr_in source{};
    source.sin_family = AF_INET;
    source.sin_port = htons(port);
    std::memcpy(&source.sin_addr, bytes.data(), bytes.size());
    return source;
}

using V6Bytes = std::array<std::uint8_t, 16>;

inline sockaddr_in6 v6Source(V6Bytes const& bytes)
{
    sockaddr_in6 source{};
    source.sin6_family = AF_INET6;
    std::memcpy(&source.sin6_addr, bytes.data(), bytes.size());
    return source;
}

template <typename Source>
sockaddr const* generic(Source const& source)
{
    return reinterpret_cast<sockaddr const*>(&source);
}

inline Utils::IpAddress v4(std::array<std::uint8_t, 4> const& bytes)
{
    return Utils::IpAddress(generic(v4Source(bytes)));
}

inline Utils::IpAddress v6(V6Bytes const& bytes)
{
    return Utils::IpAddress(generic(v6Source(bytes)));
}

inline V6Bytes const loopbackBytes = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};

/// What no constructor makes: an object that somebody wrote to.
inline Utils::IpAddress inFamily(sa_family_t family)
{
    Utils::IpAddress address = v4({127, 0, 0, 1});
    const_cast<sockaddr*>(address.sockaddr())->sa_family = family;
    return address;
}

/// The bytes of an object's storage, or of a source.
template <typename Source>
std::vector<unsigned char> bytesOf(Source const* source, std::size_t count)
{
    std::vector<unsigned char> bytes(count);
    std::memcpy(bytes.data(), source, count);
    return bytes;
}

/// Addresses, and what is logged about them.
class IpAddressFixture : public testing::Test
{
protected:
    void expectError(std::string const& text) { log.expect(isLine(Log::Severity::Error, "", text)); }

    /// That this one line is all that was logged.
    void expectOnlyError(std::string const& text)
    {
        EXPECT_THAT(log.lines(), testing::ElementsAre(isLine(Log::Severity::Error, "", text)));
    }

    void expectRefusal(std::function<void()> const& action, std::string const& logged, std::string const& thrown)
    {
        expectError(logged);
        log.clear();
        EXPECT_THAT(action, testing::ThrowsMessage<std::invalid_argument>(testing::StrEq(thrown)));
        expectOnlyError(logged);
    }

    LogCapture log;
};

}
