#include <utils/testing/SystemTimeHandlerStub.h>

#include <gmock/gmock.h>

#include <stdexcept>

namespace Halden::Tavro::Utils::Testing
{

namespace
{

using namespace testing;

TEST(SystemTimeHandlerStubTest, AnswersWhatTheTestHasSaidLast)
{
    SystemTimeHandlerStub sut;
    SystemTimeHandlerIfc const& asked = sut;

    sut.setAbsoluteTime(false);
    bool const first = asked.hasAbsoluteTime();
    sut.setAbsoluteTime(true);
    bool const second = asked.hasAbsoluteTime();

    EXPECT_FALSE(first);
    EXPECT_TRUE(second);
}

TEST(SystemTimeHandlerStubTest, AskedBeforeItWasToldItSaysSo)
{
    SystemTimeHandlerStub sut;
    sut.initialize(); // tells nothing

    EXPECT_THAT([&] { sut.hasAbsoluteTime(); },
                ThrowsMessage<std::logic_error>(
                    StrEq("hasAbsoluteTime() was asked before the test has called setAbsoluteTime()")));
}

TEST(SystemTimeHandlerStubTest, CountsInitializations)
{
    SystemTimeHandlerStub sut;
    SystemTimeHandlerIfc& initialized = sut;

    int const before = sut.initializations();
    initialized.initialize();
    initialized.initialize();

    EXPECT_EQ(before, 0);
    EXPECT_EQ(sut.initializations(), 2);
}

}

}
