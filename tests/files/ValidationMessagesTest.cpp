// What a validation logs, from the callbacks that libxml2 gets.

#include "files/ValidationMessages.h"

#include "files/LibXmlFaults.h"
#include "files/ValidationMessagesFixture.h"
#include "support/ChildProcess.h"

#include <gmock/gmock.h>

#include <libxml/parser.h>
#include <libxml/xmlschemas.h>

#include <cstddef>
#include <functional>
#include <iostream>
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

class ValidationMessagesTest : public ValidationMessagesFixture
{
protected:
    /// That each fault which libxml2 finds is one line.
    void expectFaultsOf(std::string const& document, std::vector<std::string> const& named)
    {
        auto const faults = libXmlFaults(document, xsdFile.path());
        ASSERT_EQ(faults.size(), named.size());
        log.clear();

        validateInvalid(document);

        std::vector<LogLine> expected;
        for (std::size_t i = 0; i != faults.size(); ++i)
        {
            EXPECT_THAT(faults[i], AllOf(HasSubstr(named[i]), EndsWith("\n")));
            expected.push_back({Log::Severity::Error, "", "XML Validation ERROR: " + faults[i]});
        }
        EXPECT_EQ(log.lines(), expected);
    }
};

TEST_F(ValidationMessagesTest, EachErrorIsOneLineWithItsNewline)
{
    expectFaultsOf("<device><port>a</port><port>80</port><port>b</port></device>", {"'a'", "'b'"});
}

// kept: services look there for what is wrong with a document
TEST_F(ValidationMessagesTest, WarningsAreLoggedAtTheSeverityOfErrors)
{
    warningCallback()(nullptr, "%s has no %s in line %d\n", "device", "port", 7);

    EXPECT_THAT(log.lines(), ElementsAre(isLine(Log::Severity::Error, "",
                                                "XML Validation Warning: device has no port in line 7\n")));
}

TEST_F(ValidationMessagesTest, ErrorsAreFormattedWithTheirValues)
{
    errorCallback()(nullptr, "%s has no %s in line %d", "device", "port", 7);

    EXPECT_THAT(log.lines(),
                ElementsAre(isLine(Log::Severity::Error, "", "XML Validation ERROR: device has no port in line 7")));
}

TEST_F(ValidationMessagesTest, ConversionSpecifiersInADocumentAreText)
{
    expectFaultsOf(withPort("%s%n%1000000d"), {"'%s%n%1000000d'"});
}

TEST_F(ValidationMessagesTest, MessageOf4999CharactersIsLoggedWhole)
{
    std::string const message(4999, 'm');

    errorCallback()(nullptr, "%s", message.c_str());
    warningCallback()(nullptr, "%s", message.c_str());

    EXPECT_THAT(log.lines(), ElementsAre(isLine(Log::Severity::Error, "", "XML Validation ERROR: " + message),
                                         isLine(Log::Severity::Error, "", "XML Validation Warning: " + message)));
}

TEST_F(ValidationMessagesTest, SinkThatThrowsDoesNotStopAValidation)
{
    int lines = 0;
    log.onLine(
        [&](LogLine const& /*line*/)
        {
            ++lines;
            throw std::runtime_error("disk full");
        });

    validateInvalid("<device><port>a</port><port>b</port></device>");

    EXPECT_EQ(lines, 2);
    EXPECT_THAT(watch.left(), IsEmpty());
}

/// What a call writes to standard error, and the message of the exception that ends it.
struct Outcome
{
    std::string said;
    std::string thrown;
};

template <typename Call>
Outcome outcomeOf(Call const& call)
{
    auto const result = runInChild(
        [&]
        {
            LogCapture const log;
            try
            {
                call();
            }
            catch (std::runtime_error const& error)
            {
                std::cerr << "\nthrown: " << error.what();
            }
            return log.lines().empty() ? 0 : 1;
        });
    EXPECT_EQ(result.exitCode, 0) << result.output;
    std::size_t const end = result.output.find("\nthrown: ");
    return end == std::string::npos ? Outcome{result.output, ""}
                                    : Outcome{result.output.substr(0, end), result.output.substr(end + 9)};
}

void parseSchema(std::string const& xsdPath)
{
    xmlSchemaParse(xmlSchemaNewDocParserCtxt(xmlReadFile(xsdPath.c_str(), nullptr, XML_PARSE_NONET)));
}

TEST_F(ValidationMessagesTest, WhatLibXmlSaysOfReadingGoesToStandardErrorAndNotToTheLog)
{
    TextFile const brokenXsd("<schema");
    TextFile const noSchema("<schema/>");
    TextFile const missingImport(R"(<xs:schema xmlns:xs="http://www.w3.org/2001/XMLSchema">
<xs:import namespace="urn:other" schemaLocation="/nonexistent/other.xsd"/><xs:element name="device"/></xs:schema>)");
    std::string const brokenDocument = "<device>";
    struct Row
    {
        std::string document;
        std::string xsdPath;
        std::function<void()> sameOfLibXml;
        std::string thrown;
    };
    for (Row const& row :
         {
             Row{"<device/>", brokenXsd.path(),
                 [&] { xmlReadFile(brokenXsd.path().c_str(), nullptr, XML_PARSE_NONET); },
                 "Failed to load the XML schema"},
             Row{"<device/>", noSchema.path(), [&] { parseSchema(noSchema.path()); }, "Failed to parse XSD"},
             Row{brokenDocument, xsdFile.path(),
                 [&] {
                     xmlReadMemory(brokenDocument.data(), static_cast<int>(brokenDocument.size()), nullptr, nullptr, 0);
                 },
                 "Failed to open the HaldenDeviceId.xml"},
             Row{"<device/>", missingImport.path(), [&] { parseSchema(missingImport.path()); }, ""},
         })
    {
        auto const ofLibXml = outcomeOf(row.sameOfLibXml);

        auto const outcome = outcomeOf([&] { sut.validateAgainstXSD(std::stringstream(row.document), row.xsdPath); });

        EXPECT_THAT(outcome.said, AllOf(Not(IsEmpty()), StrEq(ofLibXml.said)));
        EXPECT_EQ(outcome.thrown, row.thrown);
    }
}

}

}
