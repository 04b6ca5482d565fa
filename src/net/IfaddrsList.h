#pragma once

#include <ifaddrs.h>

#include <memory>

namespace Halden::Tavro::Utils
{

struct FreeIfaddrs
{
    void operator()(ifaddrs* list) const { freeifaddrs(list); }
};

/// Owns what getifaddrs() found; null when it found nothing.
using IfaddrsList = std::unique_ptr<ifaddrs, FreeIfaddrs>;

}
