// What a query of the hardened build leaves behind where a node has no content: nothing.

#include "files/XmlHelperFailingCallFixture.h"

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using testing::IsEmpty;

using XmlHelperFailingCallHardenedTest = XmlHelperFailingCallFixture;

TEST_F(XmlHelperFailingCallHardenedTest, ContentThatCannotBeMadeLeavesNothing)
{
    xmlChar* const none = nullptr;

    EXPECT_THAT(leftByFailingCalls(
                    {callsOf("xmlNodeGetContent", getContent, none, 0)},
                    [this] { sut.singleNodeText(documentFile.path(), "//device"); }, [this] { return memoryLeft(); }),
                IsEmpty());
}

}

}
