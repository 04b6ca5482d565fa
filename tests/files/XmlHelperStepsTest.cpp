// The calls to libxml2: which, in which order, and what is freed when one of them fails.

#include <utils/XmlHelper.h>

#include "LibXmlWatch.h"
#include "TextFile.h"
#include "support/LogCapture.h"

#include <gmock/gmock.h>

#include <libxml/xmlversion.h>

#include <functional>
#include <memory>
#include <optional>
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

std::string const xsd = R"(<xs:schema xmlns:xs="http://www.w3.org/2001/XMLSchema">
<xs:element name="device">
<xs:complexType><xs:sequence><xs:element name="name" type="xs:string"/></xs:sequence></xs:complexType>
</xs:element>
</xs:schema>)";

std::string const document = "<device><name>A</name><name>B</name></device>";
std::string const validDocument = "<device><name>A</name></device>";

std::vector<std::string> operator+(std::vector<std::string> left, std::vector<std::string> const& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

class XmlHelperStepsTest : public Test
{
protected:
    XmlHelperStepsTest()
    {
        watch.emplace(); // without the calls of the constructor under test
    }

    std::vector<std::string> validationSteps() const
    {
        return {"xmlReadFile(" + xsdFile.path() + ", null, 2048)",
                "xmlSchemaNewDocParserCtxt(XSD)",
                "xmlSchemaParse(parser)",
                "xmlSchemaNewValidCtxt(schema)",
                "xmlReadMemory(" + validDocument + ", null, null, 0)",
                "xmlSchemaSetValidErrors(validation, callback, callback, null)",
                "xmlSchemaValidateDoc(validation, document)"};
    }

    LogCapture log;
    TextFile const xsdFile{xsd};
    XmlHelper sut;
    std::optional<LibXmlWatch> watch;
};

std::vector<std::string> const querySteps{
    "xmlReadMemory(" + document + ", null, null, 0)",
    "xmlXPathNewContext(document)",
    "xmlXPathRegisterNs(context, upnp, urn:schemas-upnp-org:device-1-0)",
    "xmlXPathEvalExpression(//name, context)",
    "xmlNodeGetContent(name)",
    "xmlFree(content)",
    "xmlNodeGetContent(name)",
    "xmlFree(content)",
};

std::vector<std::string> const queryEnd{
    "xmlXPathFreeObject(result)",
    "xmlXPathFreeContext(context)",
    "xmlFreeDoc(document)",
    "xmlCleanupParser()",
};

/// The first so many.
std::vector<std::string> first(std::size_t count, std::vector<std::string> const& steps)
{
    return {steps.begin(), steps.begin() + static_cast<std::ptrdiff_t>(count)};
}

struct Failure
{
    std::string function;
    std::size_t step; // counted from 1
    std::string message;
    std::vector<std::string> freed;
    int number{-1};
};

TEST(XmlHelperConstructorTest, ChecksTheVersionAndPreparesTheParser)
{
    LibXmlWatch const watch;

    XmlHelper const sut;

    EXPECT_THAT(watch.calls(),
                ElementsAre("xmlCheckVersion(" + std::to_string(LIBXML_VERSION) + ")", "xmlInitParser()"));
}

TEST_F(XmlHelperStepsTest, SuccessfulValidationFreesNothing)
{
    sut.validateAgainstXSD(std::stringstream(validDocument), xsdFile.path());

    EXPECT_EQ(watch->calls(), validationSteps());
    EXPECT_THAT(watch->left(), ElementsAre("XSD", "parser", "schema", "validation", "document"));
    EXPECT_THAT(log.lines(), IsEmpty());
}

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
        watch.reset();
        watch.emplace();
        watch->fail(failure.function, failure.number);

        EXPECT_THAT([&] { sut.validateAgainstXSD(std::stringstream(validDocument), xsdFile.path()); },
                    ThrowsMessage<std::runtime_error>(StrEq(failure.message)));

        EXPECT_EQ(watch->calls(), first(failure.step, validationSteps()) + failure.freed);
        EXPECT_THAT(watch->left(), IsEmpty());
        EXPECT_THAT(log.lines(), IsEmpty());
    }
}

TEST_F(XmlHelperStepsTest, SuccessfulQueryFreesEverythingAndCleansUpTheParser)
{
    EXPECT_THAT(sut.nodesText(std::stringstream(document), "//name"), ElementsAre("A", "B"));

    EXPECT_EQ(watch->calls(), querySteps + queryEnd);
    EXPECT_THAT(watch->left(), IsEmpty());
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
        watch.reset();
        watch.emplace();
        watch->fail(failure.function, failure.number);

        EXPECT_THAT([&] { sut.nodesText(std::stringstream(document), "//name"); },
                    ThrowsMessage<std::runtime_error>(StrEq(failure.message)));

        EXPECT_EQ(watch->calls(), first(failure.step, querySteps) + failure.freed);
        EXPECT_THAT(watch->left(), IsEmpty());
        EXPECT_THAT(log.lines(), IsEmpty());
    }
}

TEST_F(XmlHelperStepsTest, ResultThatIsNoNodeSetIsThrownAsPointerAndFreesNothing)
{
    for (char const* const expression : {"count(//name)", "string(//name)", "//name = 'A'", "1 div 0"})
    {
        SCOPED_TRACE(expression);
        watch.reset();
        watch.emplace();

        std::unique_ptr<std::runtime_error> thrown;
        try
        {
            sut.nodesText(std::stringstream(document), expression);
        }
        catch (std::exception const&)
        {
            ADD_FAILURE() << "thrown by value";
        }
        catch (std::runtime_error* error)
        {
            thrown.reset(error);
        }

        ASSERT_NE(thrown, nullptr);
        EXPECT_STREQ(thrown->what(), "Invalid type");
        EXPECT_THAT(watch->left(), ElementsAre("document", "context", "result"));
        EXPECT_THAT(watch->calls().back(), StartsWith("xmlXPathEvalExpression("));
        EXPECT_THAT(log.lines(), IsEmpty());
    }
}

TEST_F(XmlHelperStepsTest, NodeWithoutContentIsALogicErrorAndFreesNothing)
{
    watch->fail("xmlNodeGetContent");

    EXPECT_THAT([&] { sut.nodesText(std::stringstream(document), "//name"); },
                ThrowsMessage<std::logic_error>(StrEq("basic_string: construction from null is not valid")));

    EXPECT_EQ(watch->calls(), first(5, querySteps));
    EXPECT_THAT(watch->left(), ElementsAre("document", "context", "result"));
}

TEST_F(XmlHelperStepsTest, ProcessingInstructionWithoutDataHasNoContent)
{
    EXPECT_THROW(
        sut.nodesText(std::stringstream("<device><?reset now?><?reset?></device>"), "//processing-instruction()"),
        std::logic_error);

    EXPECT_THAT(watch->calls(), Contains("xmlNodeGetContent(reset)").Times(2));
    EXPECT_THAT(watch->left(), ElementsAre("document", "context", "result"));
}

TEST_F(XmlHelperStepsTest, EmptyNodeSetIsAnEmptyList)
{
    for (char const* const expression : {"//model", "self::node()"}) // the latter's node set is null
    {
        SCOPED_TRACE(expression);
        watch.reset();
        watch.emplace();

        EXPECT_THAT(sut.nodesText(std::stringstream(document), expression), IsEmpty());

        EXPECT_THAT(watch->calls(), Not(Contains(StartsWith("xmlNodeGetContent"))));
        EXPECT_THAT(watch->calls().back(), "xmlCleanupParser()");
        EXPECT_THAT(watch->left(), IsEmpty());
    }
}

TEST_F(XmlHelperStepsTest, SingleTextIsTakenFromTheListOfAll)
{
    EXPECT_EQ(sut.singleNodeText(std::stringstream(validDocument), "//name"), "A");

    EXPECT_THAT(watch->calls(), Contains("xmlXPathEvalExpression(//name, context)").Times(1));
    EXPECT_THAT(watch->calls().back(), "xmlCleanupParser()");
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(XmlHelperStepsTest, FileFormsTakeTheSameSteps)
{
    TextFile const file(document);
    TextFile const validFile(validDocument);

    EXPECT_THAT(sut.nodesText(file.path(), "//name"), ElementsAre("A", "B"));
    EXPECT_EQ(watch->calls(), querySteps + queryEnd);

    watch.reset();
    watch.emplace();
    EXPECT_EQ(sut.singleNodeText(validFile.path(), "//name"), "A");
    EXPECT_EQ(watch->calls().front(), "xmlReadMemory(" + validDocument + ", null, null, 0)");
    EXPECT_THAT(watch->calls(), Contains("xmlXPathEvalExpression(//name, context)").Times(1));

    watch.reset();
    watch.emplace();
    sut.validateAgainstXSD(validFile.path(), xsdFile.path());
    EXPECT_EQ(watch->calls(), validationSteps());
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

/// What a call leaves in libxml2's memory, once all that is made only once is there.
std::size_t bytesLeftBy(std::function<void()> const& call)
{
    call();
    std::size_t const before = LibXmlWatch::bytes();
    call();
    return LibXmlWatch::bytes() - before;
}

TEST_F(XmlHelperStepsTest, ValidationLeavesTheMemoryOfFiveObjectsAndNothingElse)
{
    std::size_t const left =
        bytesLeftBy([&] { sut.validateAgainstXSD(std::stringstream(validDocument), xsdFile.path()); });

    EXPECT_THAT(watch->left(), SizeIs(10));
    EXPECT_THAT(left, AllOf(Gt(10'000U), Lt(40'000U))); // 30 KB, says the header

    std::size_t const without = bytesLeftBy(
        [&]
        {
            sut.validateAgainstXSD(std::stringstream(validDocument), xsdFile.path());
            watch->freeWhatIsLeft();
        });
    EXPECT_EQ(without, 0U);
}

TEST_F(XmlHelperStepsTest, FailedValidationLeavesNoMemory)
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

TEST_F(XmlHelperStepsTest, QueryLeavesNoMemory)
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

}

}
