// What the receiver thread does with what poll(2) and recv(2) answer.

#include <utils/LocalIps.h>

#include "net/LocalIpsFixture.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using Log::Severity;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using namespace TestSupport;

using LocalIpsReceiverTest = LocalIpsFixture;

TEST_F(LocalIpsReceiverTest, EventsChangeTheListAndReachTheCallbacksOnTheReceiverThread)
{
    std::vector<std::string> reported;
    std::vector<std::thread::id> threads;
    auto const reporter = [&](char const* sign)
    {
        return [&, sign](IpAddress const& ip)
        {
            reported.push_back(sign + ip.string());
            threads.push_back(std::this_thread::get_id());
        };
    };
    LocalIps sut(reporter("+"), reporter("-"), {});

    kernel.send(added("10.0.0.1") + added("fd00::1"));
    kernel.send(deleted("10.0.0.1"));

    ASSERT_TRUE(kernel.waitUntilIdle());
    EXPECT_THAT(reported, ElementsAre("+10.0.0.1", "+fd00::1", "-10.0.0.1"));
    EXPECT_THAT(threads, Each(testing::AllOf(threads.front(), testing::Ne(std::this_thread::get_id()))));
    EXPECT_THAT(addressesOf(sut), ElementsAre("fd00::1"));
    EXPECT_THAT(kernel.receiverCalls(), ElementsAre(onePoll, oneRecv, onePoll, oneRecv));
    EXPECT_THAT(
        capture.linesOf("LocalIps"),
        ElementsAre(line(Severity::Info, "+receiverThread"), line(Severity::Trace, "receiverThread: recv returned 76"),
                    line(Severity::Trace, "nlToIpAddress: got IPv4"), line(Severity::Info, "new IP address: 10.0.0.1"),
                    line(Severity::Trace, "nlToIpAddress: got IPv6"), line(Severity::Info, "new IP address: fd00::1"),
                    line(Severity::Trace, "receiverThread: recv returned 32"),
                    line(Severity::Trace, "nlToIpAddress: got IPv4"),
                    line(Severity::Info, "lost IP address: 10.0.0.1")));
}

TEST_F(LocalIpsReceiverTest, CallbacksMayAskForTheListWhichHasChangedAlready)
{
    LocalIps* monitor = nullptr;
    std::vector<std::vector<std::string>> seen;
    auto const look = [&](auto const& /*ip*/) { seen.push_back(addressesOf(*monitor)); };
    LocalIps sut(look, look, {});
    monitor = &sut;

    kernel.send(added("10.0.0.1") + added("10.0.0.2") + deleted("10.0.0.1"));

    ASSERT_TRUE(kernel.waitUntilIdle());
    EXPECT_THAT(seen,
                ElementsAre(ElementsAre("10.0.0.1"), ElementsAre("10.0.0.1", "10.0.0.2"), ElementsAre("10.0.0.2")));
}

TEST_F(LocalIpsReceiverTest, NothingIsReceivedWhenPollRunsIntoItsTimeOut)
{
    LocalIps const sut({}, {}, {});

    kernel.add(pollGives(0));
    kernel.add(pollGives(0));

    ASSERT_TRUE(kernel.waitUntilIdle());
    EXPECT_THAT(kernel.receiverCalls(), ElementsAre(onePoll, onePoll));
    EXPECT_THAT(capture.lines(), ElementsAre(line(Severity::Info, "+receiverThread")));
}

// kept: what is queued is not left lying
TEST_F(LocalIpsReceiverTest, FailedPollIsLoggedAndReportedAndThenReceivedAllTheSame)
{
    std::string const failed = "poll failed with 12(Cannot allocate memory)";
    expect(Severity::Error, failed);
    std::vector<std::vector<std::string>> atReport;
    LocalIps sut({}, {}, [&] { atReport.push_back(kernel.receiverCalls()); });

    auto pass = pollGives(-1, ENOMEM);
    pass.bytes = added("10.0.0.1");
    kernel.add(pass);

    ASSERT_TRUE(kernel.waitUntilIdle());
    EXPECT_THAT(atReport, ElementsAre(ElementsAre(onePoll))); // before recv
    EXPECT_THAT(addressesOf(sut), ElementsAre("10.0.0.1"));
    EXPECT_THAT(capture.lines(), ElementsAre(line(Severity::Info, "+receiverThread"), line(Severity::Error, failed),
                                             line(Severity::Trace, "receiverThread: recv returned 32"),
                                             line(Severity::Trace, "nlToIpAddress: got IPv4"),
                                             line(Severity::Info, "new IP address: 10.0.0.1")));
}

TEST_F(LocalIpsReceiverTest, NoDataIsNoError)
{
    int reports = 0;
    LocalIps const sut({}, {}, [&reports] { ++reports; });

    kernel.add(recvFails(EAGAIN));

    ASSERT_TRUE(kernel.waitUntilIdle());
    EXPECT_EQ(reports, 0);
    EXPECT_THAT(capture.lines(), ElementsAre(line(Severity::Info, "+receiverThread"),
                                             line(Severity::Trace, "receiverThread: recv returned -1"),
                                             line(Severity::Debug, "no data to read, going back to select loop")));
}

TEST_F(LocalIpsReceiverTest, AnswerTooShortForAMessageIsNoError)
{
    int reports = 0;
    LocalIps const sut({}, {}, [&reports] { ++reports; });

    kernel.send("x");

    ASSERT_TRUE(kernel.waitUntilIdle());
    EXPECT_EQ(reports, 0);
    EXPECT_THAT(capture.lines(), ElementsAre(line(Severity::Info, "+receiverThread"),
                                             line(Severity::Trace, "receiverThread: recv returned 1")));
}

// kept: the comma at the end; what reads the log looks for the text as it is
TEST_F(LocalIpsReceiverTest, FailedReceiveIsLoggedAndReportedAndEndsNothing)
{
    std::string const failed =
        "receiverThread: recv on NETLINK_ROUTE socket failed, errno 12 (Cannot allocate memory),";
    expect(Severity::Error, failed);
    std::vector<std::thread::id> reports;
    LocalIps sut({}, {}, [&reports] { reports.push_back(std::this_thread::get_id()); });

    kernel.add(recvFails(ENOMEM));
    kernel.send(added("10.0.0.1"));

    ASSERT_TRUE(kernel.waitUntilIdle());
    EXPECT_THAT(reports, ElementsAre(Not(std::this_thread::get_id())));
    EXPECT_THAT(addressesOf(sut), ElementsAre("10.0.0.1"));
    EXPECT_THAT(linesWith("receiverThread"),
                ElementsAre(line(Severity::Info, "+receiverThread"),
                            line(Severity::Trace, "receiverThread: recv returned -1"), line(Severity::Error, failed),
                            line(Severity::Trace, "receiverThread: recv returned 32")));
}

// kept: owners count what is reported; a socket that does not block is never interrupted
TEST_F(LocalIpsReceiverTest, InterruptedReceiveIsAnErrorLikeAnyOther)
{
    std::string const failed =
        "receiverThread: recv on NETLINK_ROUTE socket failed, errno 4 (Interrupted system call),";
    expect(Severity::Error, failed);
    int reports = 0;
    LocalIps const sut({}, {}, [&reports] { ++reports; });

    kernel.add(recvFails(EINTR));

    ASSERT_TRUE(kernel.waitUntilIdle());
    EXPECT_EQ(reports, 1);
    EXPECT_EQ(capture.lines().back(), (LogLine{Severity::Error, "LocalIps", failed}));
}

TEST_F(LocalIpsReceiverTest, EmptyAnswerIsFollowedByASleepOfOneSecondThatASignalDoesNotShorten)
{
    int reports = 0;
    kernel.interruptSleep({0, 600'000'000});
    LocalIps const sut({}, {}, [&reports] { ++reports; });

    kernel.send("");
    kernel.add(pollGives(0));

    ASSERT_TRUE(kernel.waitUntilIdle());
    EXPECT_EQ(reports, 0);
    EXPECT_THAT(kernel.receiverCalls(),
                ElementsAre(onePoll, oneRecv, "nanosleep(1 s 0 ns)", "nanosleep(0 s 600000000 ns)", onePoll));
    EXPECT_THAT(capture.lines(), ElementsAre(line(Severity::Info, "+receiverThread"),
                                             line(Severity::Trace, "receiverThread: recv returned 0"),
                                             line(Severity::Debug, "receiverThread: returned 0: now sleeping a bit")));
}

// kept: the owner is expected to construct the monitor anew
TEST_F(LocalIpsReceiverTest, ExceptionOfTheErrorCallbackEndsTheReceiverThread)
{
    capture.expect(isLine(Severity::Error, "LocalIps", HasSubstr("recv on NETLINK_ROUTE socket failed")));
    expect(Severity::Error, "-receiverThread caught exception no use");
    auto sut = std::make_unique<LocalIps>(nullptr, nullptr, [] { throw std::runtime_error("no use"); });

    kernel.add(recvFails(ENOMEM));
    ASSERT_TRUE(capture.waitFor(isLine(Severity::Info, "LocalIps", "-receiverThread")));
    kernel.send(added("10.0.0.1"));

    EXPECT_EQ(capture.lines().at(capture.lines().size() - 2),
              line(Severity::Error, "-receiverThread caught exception no use"));
    EXPECT_THAT(addressesOf(*sut), IsEmpty());
    sut.reset(); // ends as ever
    EXPECT_THAT(kernel.receiverCalls(), ElementsAre(onePoll, oneRecv));
    EXPECT_EQ(capture.lines().back(), line(Severity::Info, "receiver thread stopped"));
}

}

}
