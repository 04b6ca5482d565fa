#pragma once

#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace Halden::Tavro::TestSupport
{

/// Questions to the real kernel, about interfaces that a test makes in a network namespace of its own. The interfaces
/// of this process stay as they are.
///
/// For test programs that list net/RouteKernelFixture.cpp among their sources.
class RouteKernelFixture : public testing::Test
{
protected:
    RouteKernelFixture();
    ~RouteKernelFixture() override;

    /// Runs checks in a child process, with lo and two interfaces, of which eth0 has the addresses 192.0.2.1/24 and
    /// 198.51.100.1/24, and eth1 the first of them; both have fe80::1. Without a namespace, the test is skipped.
    static void runBesideInterfaces(std::function<void()> const& checks);

    std::vector<std::string> const interfacesBefore;
    LogCapture log;
};

}
