// What a query of the exact build leaves behind where a node has no content.

#include "files/XmlHelperFailingCallFixture.h"

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using testing::ElementsAre;

using XmlHelperFailingCallExactTest = XmlHelperFailingCallFixture;

// kept: the exception is what services take for a fault of the document
TEST_F(XmlHelperFailingCallExactTest, ContentThatCannotBeMadeLeavesTheDocument)
{
    xmlChar* const none = nullptr;

    EXPECT_THAT(leftByFailingCalls(
                    {callsOf("xmlNodeGetContent", getContent, none, 0)},
                    [this] { sut.singleNodeText(documentFile.path(), "//device"); }, [this] { return memoryLeft(); }),
                ElementsAre("xmlNodeGetContent 1: memory of libxml2"));
}

}

}
