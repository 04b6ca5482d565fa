#pragma once

#include <utils/LocalIps.h>

#include <mutex>
#include <string>

namespace DeviceService
{

/// The device's addresses for the status, and what has changed last.
class Addresses
{
public:
    Addresses();

    std::string reading();

private:
    void change(std::string const& what);

    std::mutex mutex;
    std::string lastChange;                 // guarded by mutex
    Halden::Tavro::Utils::LocalIps monitor; // its callbacks use what is above
};

}
