#pragma once

#include <sys/socket.h>

namespace Halden::Tavro::Utils
{

/// Whether addresses of that family are IP addresses.
inline bool isIp(int family)
{
    return family == AF_INET || family == AF_INET6;
}

}
