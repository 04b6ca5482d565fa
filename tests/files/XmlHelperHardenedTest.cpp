// The hardened build frees all that it makes, and leaves libxml2 to others as it is.

#include <utils/XmlHelper.h>

#include "files/LibXmlWatch.h"
#include "files/XmlHelperWatched.h"
#include "support/Resources.h"

#include <gmock/gmock.h>

#include <libxml/xmlversion.h>

#include <cstddef>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace testing;
using namespace TestSupport;

class XmlHelperHardenedTest : public XmlHelperWatched
{
};

/// Some of which libxml2 would make on first use otherwise, without a lock.
TEST(XmlHelperConstructorHardenedTest, AllIsPreparedThatThreadsShare)
{
    LibXmlWatch const watch;

    XmlHelper const sut;

    EXPECT_THAT(watch.calls(), ElementsAre("xmlCheckVersion(" + std::to_string(LIBXML_VERSION) + ")", "xmlInitParser()",
                                           "xmlInitializeCatalog()", "xmlSchemaInitTypes()"));
}

TEST_F(XmlHelperHardenedTest, SuccessfulValidationFreesAllInTheOrderOfAFailedOne)
{
    sut.validateAgainstXSD(std::stringstream(validDocument), xsdFile.path());

    std::vector<std::string> const freed{"xmlSchemaFreeValidCtxt(validation)", "xmlSchemaFree(schema)",
                                         "xmlSchemaFreeParserCtxt(parser)", "xmlFreeDoc(XSD)", "xmlFreeDoc(document)"};
    EXPECT_EQ(watch->calls(), validationSteps() + freed);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(XmlHelperHardenedTest, SuccessfulReadingFreesEverythingAndLeavesTheParserToOthers)
{
    EXPECT_THAT(sut.nodesText(std::stringstream(document), "//name"), ElementsAre("A", "B"));

    EXPECT_EQ(watch->calls(), querySteps + queryEnd);
}

TEST_F(XmlHelperHardenedTest, ResultThatIsNoNodeSetIsFreed)
{
    for (char const* const expression : {"count(//name)", "string(//name)", "//name = 'A'", "1 div 0"})
    {
        SCOPED_TRACE(expression);
        watchAnew();

        EXPECT_NE(pointerThrownBy([&] { sut.nodesText(std::stringstream(document), expression); }), nullptr);

        EXPECT_THAT(watch->calls(), Contains("xmlXPathFreeObject(result)"));
        EXPECT_THAT(watch->left(), IsEmpty());
    }
}

TEST_F(XmlHelperHardenedTest, NodeWithoutContentHasAnEmptyText)
{
    watch->fail("xmlNodeGetContent");

    EXPECT_THAT(sut.nodesText(std::stringstream(document), "//name"), ElementsAre("", "B"));

    EXPECT_THAT(watch->left(), IsEmpty());
}

TEST_F(XmlHelperHardenedTest, ProcessingInstructionWithoutDataHasAnEmptyText)
{
    EXPECT_THAT(
        sut.nodesText(std::stringstream("<device><?reset now?><?reset?></device>"), "//processing-instruction()"),
        ElementsAre("now", ""));

    EXPECT_THAT(watch->left(), IsEmpty());
}

struct Heap
{
    std::size_t bytesOfLibXml = LibXmlWatch::bytes();
    std::size_t blocks = heapBlocks();
};

/// What ten thousand calls leave on the heap, after one that makes what is made only once.
void expectNothingLeftByTenThousand(std::function<void()> const& call)
{
    call();
    Heap const before;
    for (int i = 0; i < 10'000; ++i)
    {
        call();
    }
    Heap const after;
    EXPECT_EQ(after.bytesOfLibXml, before.bytesOfLibXml);
    EXPECT_EQ(after.blocks, before.blocks);
}

TEST_F(XmlHelperHardenedTest, TenThousandValidationsLeaveTheHeapAsItWas)
{
    watch.reset();

    expectNothingLeftByTenThousand([&] { sut.validateAgainstXSD(std::stringstream(validDocument), xsdFile.path()); });
}

TEST_F(XmlHelperHardenedTest, TenThousandExpressionsLeaveTheHeapAsItWas)
{
    watch.reset();

    expectNothingLeftByTenThousand(
        [&]
        {
            sut.nodesText(std::stringstream(document), "//name");
            EXPECT_NE(pointerThrownBy([&] { sut.nodesText(std::stringstream(document), "count(//name)"); }), nullptr);
        });
}

}

}
