#pragma once

#include <log/Logger.h>
#include <utils/LocalIps.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Halden::Tavro::TestSupport
{

/// A LocalIps whose working members are public, derived as its header says.
class Monitor : private virtual Log::Logger, public Utils::LocalIps
{
public:
    using AddressCallback = std::function<void(Utils::IpAddress const&)>;

    using LocalIps::handleLostAddress;
    using LocalIps::handleNewAddress;
    using LocalIps::initialAddrList;
    using LocalIps::nlToIpAddress;
    using LocalIps::openNetlinkRouteSocket;
    using LocalIps::processAllNetlinkMessages;
    using LocalIps::receiverThread;

    explicit Monitor(AddressCallback onNewAddress = {}, AddressCallback onLostAddress = {},
                     std::function<void()> onReceiveError = {})
        : Log::Logger("LocalIps", "", std::make_shared<Log::LoggerImpl>())
        , LocalIps(std::move(onNewAddress), std::move(onLostAddress), std::move(onReceiveError))
    {
    }
};

/// The list as texts.
inline std::vector<std::string> addressesOf(Utils::LocalIps& localIps)
{
    std::vector<std::string> texts;
    for (auto const& ip : localIps.addresses())
    {
        texts.push_back(ip.string());
    }
    return texts;
}

}
