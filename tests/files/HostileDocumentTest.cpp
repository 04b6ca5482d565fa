// Documents as those make them who mean harm.

#include <utils/XmlHelper.h>

#include "files/DescriptionTest.h"

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

/// Sees what libxml2 wants to read beside the document, and refuses it.
class HostileDocumentTest : public DescriptionTest
{
protected:
    HostileDocumentTest()
    {
        requests.clear();
        xmlSetExternalEntityLoader(
            [](char const* url, char const* /*id*/, xmlParserCtxtPtr context) -> xmlParserInputPtr
            {
                requests.emplace_back(url);
                bool const isTemporary = requests.back().find("/text-") != std::string::npos;
                return isTemporary ? loader(url, nullptr, context) : nullptr;
            });
    }

    ~HostileDocumentTest() override { xmlSetExternalEntityLoader(loader); }

    static inline xmlExternalEntityLoader const loader = xmlGetExternalEntityLoader();
    static inline std::vector<std::string> requests;
};

std::string const external = R"(<!DOCTYPE root SYSTEM "http://192.0.2.1/root.dtd" [
<!ENTITY % more SYSTEM "http://192.0.2.1/more.dtd"> %more;
<!ENTITY file SYSTEM "file:///etc/passwd">
<!ENTITY net SYSTEM "http://192.0.2.1/net">
]>)";

TEST_F(HostileDocumentTest, NothingExternalIsReadForATextAndItsPlaceIsEmpty)
{
    EXPECT_THAT(texts(external + "<root>[&file;&net;]</root>", "/root"), ElementsAre("[]"));
    EXPECT_THAT(requests, IsEmpty());
}

TEST_F(HostileDocumentTest, NothingExternalIsReadForAValidation)
{
    validate(external + bare);

    EXPECT_THAT(requests, ElementsAre(HasSubstr("/text-"))); // the schema
}

TEST_F(HostileDocumentTest, SchemaThatADocumentNamesIsNotRead)
{
    std::string document = bare;
    document.insert(document.find("<root") + 5, " xmlns:xsi='http://www.w3.org/2001/XMLSchema-instance' "
                                                "xsi:schemaLocation='urn:other http://192.0.2.1/other.xsd'");

    EXPECT_NO_THROW(validate(document));
    EXPECT_THAT(requests, SizeIs(1));
}

TEST_F(HostileDocumentTest, DeeplyNestedEntitiesAreRefused)
{
    std::string document = "<!DOCTYPE a [<!ENTITY e0 'ha'>";
    for (int i = 1; i < 10; ++i)
    {
        std::string const inner = "&e" + std::to_string(i - 1) + ";";
        document += "<!ENTITY e" + std::to_string(i) + " '";
        for (int j = 0; j < 10; ++j)
        {
            document += inner;
        }
        document += "'>";
    }
    document += "]><a>&e9;</a>";

    EXPECT_THAT([&] { texts(document, "/a"); }, ThrowsMessage<std::runtime_error>(StrEq("Could not open file")));
    EXPECT_THAT([&] { validate(document); },
                ThrowsMessage<std::runtime_error>(StrEq("Failed to open the HaldenDeviceId.xml")));
}

TEST_F(HostileDocumentTest, EntityInItselfIsRefused)
{
    EXPECT_THAT([&] { texts("<!DOCTYPE a [<!ENTITY e '&f;'><!ENTITY f '&e;'>]><a>&e;</a>", "/a"); },
                ThrowsMessage<std::runtime_error>(StrEq("Could not open file")));
}

TEST_F(HostileDocumentTest, TwoLevelsOfEntitiesMakeALongTextOfAShortDocument)
{
    std::string document = "<!DOCTYPE a [<!ENTITY e '" + std::string(100, 'x') + "'><!ENTITY f '";
    for (int i = 0; i < 100; ++i)
    {
        document += "&e;";
    }
    document += "'>]><a>";
    for (int i = 0; i < 100; ++i)
    {
        document += "&f;";
    }
    document += "</a>";

    EXPECT_LT(document.size(), 1000U);
    EXPECT_EQ(sut.singleNodeText(std::stringstream(document), "/a"), std::string(1'000'000, 'x'));
}

TEST_F(HostileDocumentTest, DeepNestingIsRefused)
{
    std::string open;
    std::string close;
    for (int i = 0; i < 100'000; ++i)
    {
        open += "<a>";
        close += "</a>";
    }

    EXPECT_THAT([&] { texts(open + close, "/a"); }, ThrowsMessage<std::runtime_error>(StrEq("Could not open file")));
}

TEST_F(HostileDocumentTest, WhatASchemaIncludesIsReadWhereverItIs)
{
    std::string const xsd = R"(<xs:schema xmlns:xs="http://www.w3.org/2001/XMLSchema">
<xs:include schemaLocation="http://192.0.2.1/included.xsd"/><xs:element name="a"/></xs:schema>)";

    EXPECT_THAT([&] { validate("<a/>", xsd); }, ThrowsMessage<std::runtime_error>(StrEq("Failed to parse XSD")));
    EXPECT_THAT(requests, Contains("http://192.0.2.1/included.xsd"));
}

}

}
