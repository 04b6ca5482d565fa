#pragma once

#include "net/FakeNetlink.h"
#include "net/Monitor.h"
#include "net/NetlinkMessages.h"
#include "net/Reports.h"
#include "support/LogCapture.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

namespace Halden::Tavro::TestSupport
{

/// Monitors whose kernel the test plays.
class LocalIpsFixture : public testing::Test
{
protected:
    LocalIpsFixture()
    {
        capture.onLine([](auto const& /*line*/) { errno = EDOM; }); // as logging may
    }

    static LogLine line(Log::Severity severity, std::string const& text) { return {severity, "LocalIps", text}; }

    static FakeNetlink::Pass pollGives(int result, int error = 0)
    {
        FakeNetlink::Pass pass;
        pass.pollResult = result;
        pass.pollError = error;
        return pass;
    }

    static FakeNetlink::Pass recvFails(int error)
    {
        FakeNetlink::Pass pass;
        pass.recvError = error;
        return pass;
    }

    /// Announces lines that are no fault.
    void expect(Log::Severity severity, std::string const& text)
    {
        capture.expect(isLine(severity, "LocalIps", testing::StrEq(text)));
    }

    /// What is logged about that, in order.
    std::vector<LogLine> linesWith(std::string const& part) const
    {
        auto lines = capture.lines();
        auto const other = [&part](LogLine const& each) { return each.text.find(part) == std::string::npos; };
        lines.erase(std::remove_if(lines.begin(), lines.end(), other), lines.end());
        return lines;
    }

    /// What the owner's thread does from here on: its calls and its lines, in order.
    void noteOwnersLines()
    {
        capture.onLine(
            [this, owner = std::this_thread::get_id()](LogLine const& each)
            {
                if (std::this_thread::get_id() == owner)
                {
                    kernel.note(each.text);
                }
            });
    }

    static inline std::string const onePoll = "poll(4711, POLLIN, 1, 1000)";
    static inline std::string const oneRecv = "recv(4711, 4096, 0)";
    static inline std::string const lostEvents =
        "receiverThread: recv on NETLINK_ROUTE socket failed, errno 105 (No buffer space available),";

    FakeNetlink kernel;
    LogCapture capture;
};

}
