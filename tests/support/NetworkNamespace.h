#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace Halden::Tavro::TestSupport
{

/// Why this process may not make network namespaces, if it may not.
std::optional<std::string> networkNamespaceRefusal();

/// Runs the piece on a thread in a network namespace of its own, which ends with the piece and all that it has started.
///
/// It has one interface, lo, which is up, and no addresses but 127.0.0.1 and ::1. The kernel adds none by itself.
void inNetworkNamespace(std::function<void()> const& piece);

/// Why this process reaches no 127.0.0.1, if it does not.
std::optional<std::string> loopbackRefusal();

/// Changes the addresses and interfaces of the calling thread's network namespace, rtnetlink(7). Each operation returns
/// when the change is made, and throws std::runtime_error when the kernel refuses it.
class NetworkControl
{
public:
    NetworkControl();
    ~NetworkControl();

    NetworkControl(NetworkControl const&) = delete;
    NetworkControl& operator=(NetworkControl const&) = delete;

    /// @param peer makes the kernel report an IPv6 address with IFA_LOCAL; empty for none
    void addAddress(std::string const& interface, std::string const& address, std::string const& peer = "");
    void removeAddress(std::string const& interface, std::string const& address, std::string const& peer = "");

    /// @param kind as `ip link add type` has it
    void addInterface(std::string const& name, std::string const& kind);
    void setUp(std::string const& interface);
    void setDown(std::string const& interface);

private:
    void setFlags(std::string const& interface, unsigned flags);
    void changeAddress(std::uint16_t type, std::uint16_t flags, std::string const& interface,
                       std::string const& address, std::string const& peer);
    void request(std::uint16_t type, std::uint16_t flags, std::string const& body);

    int descriptor;
    std::uint32_t sequence{0};
};

}
