// What validations and queries leave behind when one of their calls fails, in either build.

#include "files/XmlHelperFailingCallFixture.h"

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using testing::IsEmpty;

using XmlHelperFailingCallTest = XmlHelperFailingCallFixture;

// A validation of the exact build that succeeds leaves its objects allocated; one that fails leaves nothing.
TEST_F(XmlHelperFailingCallTest, ValidationThatFailsFreesAllItHasMade)
{
    xmlDocPtr const none = nullptr;
    auto const failures = {callsOf("xmlReadFile", readFile, none, 0),
                           callsOf("xmlReadMemory", readMemory, none, 0),
                           callsOf("xmlSchemaNewDocParserCtxt", newDocParserCtxt, xmlSchemaParserCtxtPtr{}, 0),
                           callsOf("xmlSchemaParse", schemaParse, xmlSchemaPtr{}, 0),
                           callsOf("xmlSchemaNewValidCtxt", newValidCtxt, xmlSchemaValidCtxtPtr{}, 0),
                           callsOf("xmlSchemaValidateDoc", validateDoc, -1, 0),
                           allocations()};

    EXPECT_THAT(leftByFailingCalls(
                    failures, [this] { sut.validateAgainstXSD(documentFile.path(), schemaFile.path()); },
                    [this] { return memoryLeft(); }),
                IsEmpty());
}

TEST_F(XmlHelperFailingCallTest, QueryThatFailsFreesAllItHasMade)
{
    xmlDocPtr const none = nullptr;
    auto const failures = {callsOf("xmlReadMemory", readMemory, none, 0),
                           callsOf("xmlXPathNewContext", newContext, xmlXPathContextPtr{}, 0),
                           callsOf("xmlXPathRegisterNs", registerNs, -1, 0),
                           callsOf("xmlXPathEvalExpression", evalExpression, xmlXPathObjectPtr{}, 0), allocations()};

    EXPECT_THAT(
        leftByFailingCalls(
            failures, [this] { sut.singleNodeText(documentFile.path(), "//device"); }, [this] { return memoryLeft(); }),
        IsEmpty());
}

}

}
