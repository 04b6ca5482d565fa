// What is wrong with documents, schemas and expressions.

#include <utils/XmlHelper.h>

#include "files/DescriptionTest.h"
#include "files/LibXmlFaults.h"
#include "support/ChildProcess.h"

#include <gmock/gmock.h>

#include <libxml/parser.h>

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

class XmlHelperFailureTest : public DescriptionTest
{
};

/// What a validation logs, of a document that libxml2 finds the same faults in.
class DescriptionFaultsTest : public DescriptionTest
{
protected:
    DescriptionFaultsTest() { log.expect(isLine(Log::Severity::Error, "", StartsWith("XML Validation ERROR: "))); }

    void expectFault(std::string const& document, std::string const& named)
    {
        TextFile const xsdFile(deviceXsd);
        auto const faults = libXmlFaults(document, xsdFile.path());
        log.clear();

        EXPECT_THAT([&] { validate(document); }, ThrowsMessage<std::runtime_error>(StrEq("Document is invalid")));

        ASSERT_THAT(faults, ElementsAre(HasSubstr(named)));
        EXPECT_THAT(log.lines(), ElementsAre(isLine(Log::Severity::Error, "", "XML Validation ERROR: " + faults[0])));
    }
};

// kept: the exception names a file that the document never was; services look for this text
TEST_F(XmlHelperFailureTest, DocumentThatIsNotWellFormedIsRefused)
{
    for (std::string const& document :
         std::vector<std::string>{"", " ", "device", "<device>", "<a></b>", "<a/><b/>", "<a>&nothing;</a>",
                                  "<a b='1' b='2'/>", std::string("<a>\0</a>", 8), "<u:a/>\x01"})
    {
        EXPECT_THAT([&] { texts(document, "/*"); }, ThrowsMessage<std::runtime_error>(StrEq("Could not open file")))
            << document;
        EXPECT_THAT([&] { validate(document); },
                    ThrowsMessage<std::runtime_error>(StrEq("Failed to open the HaldenDeviceId.xml")))
            << document;
    }
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(XmlHelperFailureTest, ExpressionThatCannotBeEvaluatedIsRefused)
{
    for (std::string const xpath : {"", "//u:device", "//UPNP:device", "//upnp:", "//device[", "nothing()", "$x"})
    {
        EXPECT_THAT([&] { texts(bare, xpath); },
                    ThrowsMessage<std::runtime_error>(StrEq("Failed to create xpath expression")))
            << xpath;
    }
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(XmlHelperFailureTest, SingleTextOfNoneOrSeveralNodesIsLoggedAndThrown)
{
    auto const none = isLine(Log::Severity::Error, "", "Expect one single node for xpath '//upnp:icon' but got 0");
    auto const several =
        isLine(Log::Severity::Error, "", "Expect one single node for xpath '//upnp:service' but got 2");
    log.expect(none);
    log.expect(several);

    for (char const* const xpath : {"//upnp:icon", "//upnp:service"})
    {
        EXPECT_THAT([&] { sut.singleNodeText(std::stringstream(sensor), xpath); },
                    ThrowsMessage<std::runtime_error>(StrEq("None or more than one node found")));
    }

    EXPECT_THAT(log.lines(), ElementsAre(none, several));
}

TEST_F(XmlHelperFailureTest, SchemaWithFaultsIsRefused)
{
    std::string const head = R"(<xs:schema xmlns:xs="http://www.w3.org/2001/XMLSchema">)";
    for (std::string const& xsd :
         {std::string("<schema/>"), head + R"(<xs:element name="a" type="Missing"/></xs:schema>)",
          head + R"(<xs:element/></xs:schema>)",
          head + R"(<xs:include schemaLocation="/nonexistent.xsd"/></xs:schema>)"})
    {
        EXPECT_THAT([&] { validate("<a/>", xsd); }, ThrowsMessage<std::runtime_error>(StrEq("Failed to parse XSD")))
            << xsd;
    }
    for (std::string const& xsd : {std::string(), head})
    {
        EXPECT_THAT([&] { validate("<a/>", xsd); },
                    ThrowsMessage<std::runtime_error>(StrEq("Failed to load the XML schema")))
            << xsd;
    }
    EXPECT_THAT([&] { sut.validateAgainstXSD(std::stringstream("<a/>"), "/nonexistent.xsd"); },
                ThrowsMessage<std::runtime_error>(StrEq("Failed to load the XML schema")));
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(XmlHelperFailureTest, SchemaWithAWarningServes)
{
    std::string const xsd = R"(<xs:schema xmlns:xs="http://www.w3.org/2001/XMLSchema">
<xs:import namespace="urn:other" schemaLocation="/nonexistent.xsd"/><xs:element name="a"/></xs:schema>)";

    EXPECT_NO_THROW(validate("<a/>", xsd));
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(XmlHelperFailureTest, SchemaIsNotReadFromTheNetwork)
{
    std::string const url = "http://192.0.2.1/device.xsd";
    auto const ofLibXml =
        expectInChild([&] { EXPECT_EQ(xmlReadFile(url.c_str(), nullptr, XML_PARSE_NONET), nullptr); });

    auto const output = expectInChild(
        [&]
        {
            EXPECT_THAT([&] { sut.validateAgainstXSD(std::stringstream(bare), url); },
                        ThrowsMessage<std::runtime_error>(StrEq("Failed to load the XML schema")));
        });

    EXPECT_EQ(output, ofLibXml);
}

TEST_F(DescriptionFaultsTest, FaultOfADescriptionIsLoggedAsLibXmlNamesIt)
{
    expectFault(begin + "</root>", "root");
    expectFault(begin + "<device><friendlyName/><modelName/><UDN>7</UDN></device></root>", "UDN");
    expectFault("<root/>", "root");
}

TEST_F(DescriptionFaultsTest, EntityReferenceMakesADocumentInvalid)
{
    for (std::string const definition : {"'x'", "SYSTEM 'file:///etc/passwd'"})
    {
        expectFault("<!DOCTYPE root [<!ENTITY e " + definition + ">]>" + begin +
                        "<device><friendlyName>&e;</friendlyName><modelName/><UDN>uuid:1</UDN></device></root>",
                    "entity");
    }
}

}

}
