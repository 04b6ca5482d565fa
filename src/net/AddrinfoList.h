#pragma once

#include <netdb.h>

#include <memory>

namespace Halden::Tavro::Utils
{

struct FreeAddrinfo
{
    void operator()(addrinfo* list) const { freeaddrinfo(list); }
};

/// Owns what getaddrinfo() found; null when it found nothing.
using AddrinfoList = std::unique_ptr<addrinfo, FreeAddrinfo>;

}
