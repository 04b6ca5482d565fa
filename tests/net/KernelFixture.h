#pragma once

#include "net/Monitor.h"
#include "net/Reports.h"
#include "support/CallDouble.h"
#include "support/LogCapture.h"
#include "support/NetworkNamespace.h"
#include "support/SkippedWhere.h"

#include <gmock/gmock.h>

#include <ifaddrs.h>
#include <poll.h>

#include <string>
#include <vector>

namespace Halden::Tavro::TestSupport
{

extern CallDouble<int(ifaddrs**)> getifaddrsDouble;
extern CallDouble<int(pollfd*, nfds_t, int)> pollDouble;

/// Monitors of real interfaces, in a network namespace of their own; without one, the test is skipped.
///
/// For test programs that list net/KernelFixture.cpp among their sources.
class KernelFixture : public SkippedWhere<networkNamespaceRefusal>
{
public:
    static void resetDoubles();

protected:
    KernelFixture();
    ~KernelFixture() override;

    /// Lets netlink sockets that are opened from now on hold a handful of messages instead of hundreds.
    static void letSocketsHoldFewEvents();

    LogCapture capture{Log::Severity::Info};
};

/// The addresses of all interfaces, sorted and without repetition.
std::vector<std::string> systemAddresses();

/// An address of that prefix, two bytes long, and the number.
std::string numbered(char const* prefix, int number);

}
