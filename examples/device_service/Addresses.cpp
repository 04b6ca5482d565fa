#include "Addresses.h"

namespace DeviceService
{

// The hardened build finds out about changes that get lost on their way, and reports them like others, so there is
// nothing to do about an error; with the exact build the list may stay wrong.
Addresses::Addresses()
    : monitor([this](auto const& ip) { change("+" + ip.string()); },
              [this](auto const& ip) { change("-" + ip.string()); }, {})
{
    change(""); // what was there at the start is no change
}

std::string Addresses::reading()
{
    std::string text;
    for (auto const& ip : monitor.addresses())
    {
        if (!ip.isLoopback())
        {
            text += (text.empty() ? "" : " ") + ip.string();
        }
    }
    std::lock_guard const lock(mutex);
    text = text.empty() ? "none" : text;
    return text + (lastChange.empty() ? "" : ", last change " + lastChange);
}

void Addresses::change(std::string const& what)
{
    std::lock_guard const lock(mutex);
    lastChange = what;
}

}
