#include <utils/testing/FirmwareVersionStub.h>

#include <gmock/gmock.h>

#include <stdexcept>

namespace Halden::Tavro::Utils::Testing
{

namespace
{

using namespace testing;

TEST(FirmwareVersionStubTest, AnswersWhatTheTestHasSaidLast)
{
    FirmwareVersionStub sut;
    FirmwareVersionIfc const& asked = sut;

    sut.setVersion("1.2.3");
    sut.setVersion("1.2.4");
    sut.setCompatibleId("");

    EXPECT_EQ(asked.version(), "1.2.4");
    EXPECT_EQ(asked.compatibleId(), "");
}

TEST(FirmwareVersionStubTest, AskedBeforeItWasToldItSaysSo)
{
    FirmwareVersionStub versionOnly;
    FirmwareVersionStub compatibleIdOnly;
    versionOnly.setVersion("1.2.3");
    compatibleIdOnly.setCompatibleId("board-x");

    EXPECT_THAT([&] { compatibleIdOnly.version(); },
                ThrowsMessage<std::logic_error>(StrEq("version() was asked before the test has called setVersion()")));
    EXPECT_THAT([&] { versionOnly.compatibleId(); },
                ThrowsMessage<std::logic_error>(
                    StrEq("compatibleId() was asked before the test has called setCompatibleId()")));
}

}

}
