// What ends the process in either build.

#include <utils/LocalIps.h>

#include "net/FakeNetlink.h"
#include "net/NetlinkMessages.h"
#include "support/ChildProcess.h"
#include "support/PrintingSink.h"

#include <gmock/gmock.h>

#include <signal.h>
#include <unistd.h>

#include <memory>

namespace Halden::Tavro::Utils
{

namespace
{

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using namespace TestSupport;

// kept: the destructor waits for the receiver thread, which cannot wait for itself
TEST(LocalIpsFatalTest, DestructionInACallbackEndsTheProcess)
{
    auto const result = runInChild(
        []
        {
            Log::LoggerProxy::instance().setSink(std::make_shared<PrintingSink>());
            FakeNetlink kernel;
            std::unique_ptr<LocalIps> sut;
            sut = std::make_unique<LocalIps>([&sut](IpAddress const& /*ip*/) { sut.reset(); }, nullptr, nullptr);
            kernel.send(added("10.0.0.1"));
            pause();
            return 0;
        });

    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_THAT(result.output, AllOf(HasSubstr("+LocalIps destructor\n"), Not(HasSubstr("receiver thread stopped"))));
}

}

}
