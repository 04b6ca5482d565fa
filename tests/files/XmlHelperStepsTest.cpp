// The calls to libxml2: which, in which order, and what is freed when one of them fails.

#include <utils/XmlHelper.h>

#include "files/LibXmlWatch.h"
#include "files/XmlHelperWatched.h"

#include <gmock/gmock.h>

#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace testing;
using namespace TestSupport;

class XmlHelperStepsTest : public XmlHelperWatched
{
};

struct Failure
{
    std::string function;
    std::size_t step; // counted from 1
    std::string message;
    std::vector<std::string> freed;
    int number{-1};
};

TEST_F(XmlHelperStepsTest, FailedValidationFreesWhatItHasMade)
{
    std::vector<std::string> const readSchema{"xmlFreeDoc(XSD)"};
    auto const madeParser = std::vector<std::string>{"xmlSchemaFreeParserCtxt(parser)"} + readSchema;
    auto const parsedSchema = std::vector<std::string>{"xmlSchemaFree(schema)"} + madeParser;
    auto const madeContext = std::vector<std::string>{"xmlSchemaFreeValidCtxt(validation)"} + parsedSchema;
    auto const all = madeContext + std::vector<std::string>{"xmlFreeDoc(document)"};
    for (Failure const& failure : {
             Failure{"xmlReadFile", 1, "Failed to load the XML schema", {}},
             Failure{"xmlSchemaNewDocParserCtxt", 2, "Failed to create document parser context", readSchema},
             Failure{"xmlSchemaParse", 3, "Failed to parse XSD", madeParser},
             Failure{"xmlSchemaNewValidCtxt", 4, "Failed to create validation context", parsedSchema},
             Failure{"xmlReadMemory", 5, "Failed to open the HaldenDeviceId.xml", madeContext},
             Failure{"xmlSchemaValidateDoc", 7, "Document is invalid", all, 1},
             Failure{"xmlSchemaValidateDoc", 7, "Document is invalid", all, -1},
         })
    {
        SCOPED_TRACE(failure.function);
        watchAnew();
        watch->fail(failure.function, failure.number);

        EXPECT_THAT([&] { sut.validateAgainstXSD(std::stringstream(validDocument), xsdFile.path()); },
                    ThrowsMessage<std::runtime_error>(StrEq(failure.message)));

        EXPECT_EQ(watch->calls(), first(failure.step, validationSteps()) + failure.freed);
        EXPECT_THAT(watch->left(), IsEmpty());
        EXPECT_THAT(log.lines(), IsEmpty());
    }
}

TEST_F(XmlHelperStepsTest, FailedQueryFreesWhatItHasMade)
{
    std::vector<std::string> const parsed{"xmlFreeDoc(document)"};
    std::vector<std::string> const madeContext{"xmlXPathFreeContext(context)", "xmlFreeDoc(document)"};
    for (Failure const& failure : {
             Failure{"xmlReadMemory", 1, "Could not open file", {}},
             Failure{"xmlXPathNewContext", 2, "Failed to create xpath context", parsed},
             Failure{"xmlXPathRegisterNs", 3, "Failed to register namespace prefix for XPath", madeContext, -1},
             Failure{"xmlXPathRegisterNs", 3, "Failed to register namespace prefix for XPath", madeContext, 1},
             Failure{"xmlXPathEvalExpression", 4, "Failed to create xpath expression", madeContext},
         })
    {
        SCOPED_TRACE(failure.function);
        watchAnew();
        watch->fail(failure.function, failure.number);

        EXPECT_THAT([&] { sut.nodesText(std::stringstream(document), "//name"); },
                    ThrowsMessage<std::runtime_error>(StrEq(failure.message)));

        EXPECT_EQ(watch->calls(), first(failure.step, querySteps) + failure.freed);
        EXPECT_THAT(watch->left(), IsEmpty());
        EXPECT_THAT(log.lines(), IsEmpty());
    }
}

TEST_F(XmlHelperStepsTest, FileThatIsMissingFailsBeforeLibXmlIsInvolved)
{
    std::string const missing = "/nonexistent/device.xml";
    auto const logsTheFailure = isLine(Log::Severity::Error, "", "Failed to read file /nonexistent/device.xml");
    log.expect(logsTheFailure);
    for (std::function<void()> const& operation :
         {std::function<void()>([&] { sut.validateAgainstXSD(missing, xsdFile.path()); }),
          std::function<void()>([&] { sut.nodesText(missing, "//name"); }),
          std::function<void()>([&] { sut.singleNodeText(missing, "//name"); })})
    {
        log.clear();

        EXPECT_THAT(operation,
                    ThrowsMessage<std::runtime_error>(StrEq("Failed to read file: /nonexistent/device.xml")));

        EXPECT_THAT(log.lines(), ElementsAre(logsTheFailure));
        EXPECT_THAT(watch->calls(), IsEmpty());
    }
}

TEST_F(XmlHelperStepsTest, WholeTextOfTheStreamCountsWhereverItIsRead)
{
    std::stringstream stream(validDocument);
    std::string word;
    stream >> word;

    EXPECT_THAT(sut.nodesText(stream, "//name"), ElementsAre("A"));
    EXPECT_FALSE(stream.good()); // as the reading has left it
}

TEST_F(XmlHelperStepsTest, FailedValidationLeavesNoMemoryAllocated)
{
    for (char const* const function : {"xmlReadFile", "xmlSchemaNewDocParserCtxt", "xmlSchemaParse",
                                       "xmlSchemaNewValidCtxt", "xmlReadMemory", "xmlSchemaValidateDoc"})
    {
        EXPECT_EQ(bytesLeftBy(
                      [&]
                      {
                          watch->fail(function);
                          EXPECT_THROW(sut.validateAgainstXSD(std::stringstream(validDocument), xsdFile.path()),
                                       std::runtime_error);
                      }),
                  0U)
            << function;
    }
}

TEST_F(XmlHelperStepsTest, ReadingLeavesNoMemoryAllocatedWhetherItSucceedsOrFails)
{
    EXPECT_EQ(bytesLeftBy([&] { sut.nodesText(std::stringstream(document), "//name"); }), 0U);
    for (char const* const function :
         {"xmlReadMemory", "xmlXPathNewContext", "xmlXPathRegisterNs", "xmlXPathEvalExpression"})
    {
        EXPECT_EQ(bytesLeftBy(
                      [&]
                      {
                          watch->fail(function);
                          EXPECT_THROW(sut.nodesText(std::stringstream(document), "//name"), std::runtime_error);
                      }),
                  0U)
            << function;
    }
}

TEST_F(XmlHelperStepsTest, EmptyNodeSetIsAnEmptyList)
{
    for (char const* const expression : {"//model", "self::node()"}) // the latter's node set is null
    {
        SCOPED_TRACE(expression);
        watchAnew();

        EXPECT_THAT(sut.nodesText(std::stringstream(document), expression), IsEmpty());

        EXPECT_THAT(watch->calls(), Not(Contains(StartsWith("xmlNodeGetContent"))));
        EXPECT_THAT(watch->left(), IsEmpty());
    }
}

TEST_F(XmlHelperStepsTest, SingleTextIsTakenFromTheListOfAll)
{
    EXPECT_EQ(sut.singleNodeText(std::stringstream(validDocument), "//name"), "A");

    EXPECT_THAT(watch->calls(), Contains("xmlXPathEvalExpression(//name, context)").Times(1));
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(XmlHelperStepsTest, FileFormsTakeTheSameSteps)
{
    TextFile const file(document);
    TextFile const validFile(validDocument);

    sut.nodesText(std::stringstream(document), "//name");
    auto const ofReading = watch->calls();
    watchAnew();
    EXPECT_THAT(sut.nodesText(file.path(), "//name"), ElementsAre("A", "B"));
    EXPECT_EQ(watch->calls(), ofReading);

    watchAnew();
    EXPECT_EQ(sut.singleNodeText(validFile.path(), "//name"), "A");
    EXPECT_EQ(watch->calls().front(), "xmlReadMemory(" + validDocument + ", null, null, 0)");
    EXPECT_THAT(watch->calls(), Contains("xmlXPathEvalExpression(//name, context)").Times(1));

    watchAnew();
    sut.validateAgainstXSD(std::stringstream(validDocument), xsdFile.path());
    auto const ofValidation = watch->calls();
    watchAnew();
    sut.validateAgainstXSD(validFile.path(), xsdFile.path());
    EXPECT_EQ(watch->calls(), ofValidation);
}

/// What none of them is: a number, a text, a boolean.
// kept: services catch the pointer
TEST_F(XmlHelperStepsTest, ResultThatIsNoNodeSetIsThrownAsAPointer)
{
    for (char const* const expression : {"count(//name)", "string(//name)", "//name = 'A'", "1 div 0"})
    {
        SCOPED_TRACE(expression);
        watchAnew();

        auto const thrown = pointerThrownBy([&] { sut.nodesText(std::stringstream(document), expression); });

        ASSERT_NE(thrown, nullptr);
        EXPECT_STREQ(thrown->what(), "Invalid type");
        EXPECT_EQ(first(4, watch->calls()).back(), std::string("xmlXPathEvalExpression(") + expression + ", context)");
        EXPECT_THAT(log.lines(), IsEmpty());
    }
}

}

}
