#pragma once

#include <utils/LocalIps.h>

#include <memory>
#include <string>

namespace DeviceService
{

/// The device's addresses for the status, and what has changed last.
class Addresses
{
public:
    Addresses();

    /// Leaves the monitor behind when it is stuck: its destructor would never return. It uses up a core until the
    /// process ends: see LocalIps.h, whose advice for services a demonstration on any machine cannot follow.
    ~Addresses();

    Addresses(Addresses const&) = delete;
    Addresses& operator=(Addresses const&) = delete;

    std::string reading() const;

private:
    struct State;

    std::shared_ptr<State> state; // shared with the callbacks and the log, which may stay
    std::unique_ptr<Halden::Tavro::Utils::LocalIps> monitor;
};

}
