// The hazards of the exact build that end the process, each in a child process.

#include <utils/LocalIps.h>

#include "net/FakeNetlink.h"
#include "net/NetlinkMessages.h"
#include "support/ChildProcess.h"
#include "support/PrintingSink.h"

#include <gmock/gmock.h>

#include <signal.h>

#include <cerrno>
#include <functional>
#include <memory>
#include <stdexcept>

namespace Halden::Tavro::Utils
{

namespace
{

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using namespace TestSupport;

ChildResult inChild(std::function<void(FakeNetlink&)> const& piece)
{
    return runInChild(
        [&piece]
        {
            Log::LoggerProxy::instance().setSink(std::make_shared<PrintingSink>());
            FakeNetlink kernel;
            try
            {
                piece(kernel);
            }
            catch (...)
            {
                print("came out");
            }
            return 0;
        });
}

// kept: services end and are started again
TEST(LocalIpsFatalExactTest, UnreadableAddressesAreLoggedAndEndTheProcess)
{
    auto const result = inChild(
        [](FakeNetlink& kernel)
        {
            kernel.fail("getifaddrs", ENOMEM);
            LocalIps const sut({}, {}, {});
        });

    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_THAT(result.output,
                AllOf(HasSubstr("1 [LocalIps] initialAddrList: getifaddrs failed with 12(Cannot allocate memory)\n"),
                      Not(HasSubstr("came out")), Not(HasSubstr("destructor"))));
}

// kept: as above
TEST(LocalIpsFatalExactTest, ExceptionOfACallbackDuringConstructionEndsTheProcess)
{
    auto const result = inChild(
        [](FakeNetlink& kernel)
        {
            kernel.setAddresses({"10.0.0.1"});
            LocalIps const sut([](IpAddress const& /*ip*/) { throw std::runtime_error("no use"); }, {}, {});
        });

    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_THAT(result.output, AllOf(HasSubstr("3 [LocalIps] new IP address: 10.0.0.1\n"), Not(HasSubstr("came out"))));
}

// kept: as above
TEST(LocalIpsFatalExactTest, CallbackThatThrowsNoStandardExceptionEndsTheProcess)
{
    auto const onEvent = inChild(
        [](FakeNetlink& kernel)
        {
            LocalIps const sut([](IpAddress const& /*ip*/) { throw 5; }, {}, {});
            kernel.send(added("10.0.0.1"));
            pause();
        });
    auto const onError = inChild(
        [](FakeNetlink& kernel)
        {
            LocalIps const sut({}, {}, [] { throw 5; });
            FakeNetlink::Pass pass;
            pass.recvError = ENOBUFS;
            kernel.add(pass);
            pause();
        });

    for (auto const& result : {onEvent, onError})
    {
        EXPECT_EQ(result.signal, SIGABRT);
        EXPECT_THAT(result.output, AllOf(HasSubstr("+receiverThread\n"), Not(HasSubstr("-receiverThread"))));
    }
}

}

}
