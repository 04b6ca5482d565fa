// Documents as devices have them, and as those make them who mean harm.

#include <utils/XmlHelper.h>

#include "LibXmlWatch.h"
#include "TextFile.h"
#include "support/ChildProcess.h"
#include "support/LogCapture.h"

#include <gmock/gmock.h>

#include <libxml/parser.h>

#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace testing;
using namespace TestSupport;

static_assert(std::is_empty_v<XmlHelper> && !std::is_polymorphic_v<XmlHelper>);

std::string const deviceXsd = R"(<?xml version="1.0"?>
<xs:schema xmlns:xs="http://www.w3.org/2001/XMLSchema" xmlns="urn:schemas-upnp-org:device-1-0"
    targetNamespace="urn:schemas-upnp-org:device-1-0" elementFormDefault="qualified">
  <xs:simpleType name="Udn">
    <xs:restriction base="xs:string"><xs:pattern value="uuid:[0-9a-f\-]+"/></xs:restriction>
  </xs:simpleType>
  <xs:complexType name="Service">
    <xs:sequence>
      <xs:element name="serviceType" type="xs:anyURI"/>
      <xs:element name="serviceId" type="xs:anyURI"/>
    </xs:sequence>
  </xs:complexType>
  <xs:complexType name="Device">
    <xs:sequence>
      <xs:element name="friendlyName" type="xs:string"/>
      <xs:element name="modelName" type="xs:string"/>
      <xs:element name="UDN" type="Udn"/>
      <xs:element name="serviceList" minOccurs="0">
        <xs:complexType>
          <xs:sequence><xs:element name="service" type="Service" maxOccurs="unbounded"/></xs:sequence>
        </xs:complexType>
      </xs:element>
      <xs:element name="deviceList" minOccurs="0">
        <xs:complexType>
          <xs:sequence><xs:element name="device" type="Device" maxOccurs="unbounded"/></xs:sequence>
        </xs:complexType>
      </xs:element>
      <xs:any namespace="##other" processContents="lax" minOccurs="0" maxOccurs="unbounded"/>
    </xs:sequence>
  </xs:complexType>
  <xs:element name="root">
    <xs:complexType>
      <xs:sequence>
        <xs:element name="specVersion">
          <xs:complexType>
            <xs:sequence><xs:element name="major" type="xs:int"/><xs:element name="minor" type="xs:int"/></xs:sequence>
          </xs:complexType>
        </xs:element>
        <xs:element name="device" type="Device"/>
      </xs:sequence>
      <xs:attribute name="configId" type="xs:unsignedInt"/>
    </xs:complexType>
  </xs:element>
</xs:schema>
)";

std::string const begin =
    R"(<root xmlns="urn:schemas-upnp-org:device-1-0"><specVersion><major>1</major><minor>0</minor></specVersion>)";

std::string const sensor = "<?xml version=\"1.0\"?>\n" + begin + R"(<device>
  <friendlyName>Sensor 7</friendlyName><modelName>HX-2</modelName><UDN>uuid:0a-7</UDN>
  <serviceList>
    <service><serviceType>urn:x:service:Reading:1</serviceType><serviceId>urn:x:serviceId:Reading</serviceId></service>
    <service><serviceType>urn:x:service:Clock:2</serviceType><serviceId>urn:x:serviceId:Clock</serviceId></service>
  </serviceList>
</device></root>)";

/// One device in another, prefixes instead of a default namespace, an attribute, and an element of the maker.
std::string const gateway = R"(<u:root xmlns:u="urn:schemas-upnp-org:device-1-0" configId="42">
<u:specVersion><u:major>1</u:major><u:minor>1</u:minor></u:specVersion>
<u:device><u:friendlyName>Gateway</u:friendlyName><u:modelName>GX</u:modelName><u:UDN>uuid:1</u:UDN>
<u:deviceList>
<u:device><u:friendlyName>Port</u:friendlyName><u:modelName>GX-P</u:modelName><u:UDN>uuid:2</u:UDN></u:device>
</u:deviceList>
<m:colour xmlns:m="urn:maker" m:tone="dark">blue</m:colour></u:device></u:root>)";

std::string const bare = begin + "<device><friendlyName/><modelName>M</modelName><UDN>uuid:f</UDN></device></root>";

std::string toUtf16(std::string const& ascii)
{
    std::string text = "\xFF\xFE"; // little-endian
    for (char const character : ascii)
    {
        text += {character, '\0'};
    }
    return text;
}

class XmlHelperTest : public Test
{
protected:
    std::vector<std::string> texts(std::string const& document, std::string const& xpath)
    {
        return sut.nodesText(std::stringstream(document), xpath);
    }

    void validate(std::string const& document, std::string const& xsd = deviceXsd)
    {
        TextFile const xsdFile(xsd);
        sut.validateAgainstXSD(std::stringstream(document), xsdFile.path());
    }

    /// @return what the validation logs
    std::vector<std::string> faultsOf(std::string const& document)
    {
        log.expect(isLine(Log::Severity::Error, "", StartsWith("XML Validation ERROR: ")));
        log.clear();
        EXPECT_THAT([&] { validate(document); }, ThrowsMessage<std::runtime_error>(StrEq("Document is invalid")));
        std::vector<std::string> faults;
        for (LogLine const& line : log.lines())
        {
            faults.push_back(line.text);
        }
        return faults;
    }

    LogCapture log;
    LibXmlWatch watch;
    XmlHelper sut;
};

TEST_F(XmlHelperTest, DescriptionsOfSeveralShapesAreValid)
{
    for (std::string const& document : {sensor, gateway, bare})
    {
        EXPECT_NO_THROW(validate(document)) << document;
    }
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(XmlHelperTest, TextsOfDescriptions)
{
    struct Query
    {
        std::string document;
        std::string xpath;
        std::vector<std::string> texts;
    };
    for (Query const& query : {
             Query{sensor, "/upnp:root/upnp:device/upnp:friendlyName", {"Sensor 7"}},
             Query{sensor, "//upnp:serviceType", {"urn:x:service:Reading:1", "urn:x:service:Clock:2"}},
             Query{sensor, "//upnp:service[2]/upnp:serviceId", {"urn:x:serviceId:Clock"}},
             Query{sensor, "//upnp:specVersion", {"10"}}, // all that is in it
             Query{sensor, "//upnp:minor/text() | //upnp:modelName/text()", {"0", "HX-2"}},
             Query{sensor, "//friendlyName", {}},
             Query{sensor, "upnp:root", {}},
             Query{gateway, "//upnp:device/upnp:friendlyName", {"Gateway", "Port"}},
             Query{gateway, "//upnp:device[not(upnp:deviceList)]/upnp:UDN", {"uuid:2"}},
             Query{gateway, "/upnp:root/@configId", {"42"}},
             Query{gateway, "//@*[namespace-uri() = 'urn:maker']", {"dark"}},
             Query{gateway, "//*[local-name() = 'colour']", {"blue"}},
             Query{bare, "//upnp:friendlyName", {""}},
             Query{bare, "//upnp:modelDescription", {}},
         })
    {
        EXPECT_EQ(texts(query.document, query.xpath), query.texts) << query.xpath;
    }
}

TEST_F(XmlHelperTest, TextsOfOtherDocuments)
{
    struct Query
    {
        std::string document;
        std::string xpath;
        std::vector<std::string> texts;
    };
    for (Query const& query : {
             Query{"<p>one <b>two <i>three</i></b> four</p>", "/p", {"one two three four"}},
             Query{"<p>one <b>two <i>three</i></b> four</p>", "/p/text()", {"one ", " four"}},
             Query{"<p>a<!-- b -->c<![CDATA[<d>&amp;]]></p>", "/p", {"ac<d>&amp;"}},
             Query{"<p>a<!-- b --></p>", "//comment()", {" b "}},
             Query{"<p><?set x=1?></p>", "//processing-instruction('set')", {"x=1"}},
             Query{"<p>&lt;&amp;&gt;&quot;&apos;&#65;&#x20AC;</p>", "/p", {"<&>\"'A\xE2\x82\xAC"}},
             Query{"<!DOCTYPE p [<!ENTITY who 'the <b>maker</b>'>]><p>by &who;</p>", "/p", {"by the maker"}},
             Query{"<!DOCTYPE p [<!ENTITY a 'x'>]><p n='1&a;2'/>", "/p/@n", {"1x2"}},
             Query{"<!DOCTYPE p [<!ATTLIST p n CDATA 'default'>]><p/>", "/p/@n", {}}, // not asked for
             Query{"<p xmlns='urn:a'/>", "//namespace::*[. = 'urn:a']", {"urn:a"}},
             Query{"<p> \n </p>", "/p", {" \n "}},
         })
    {
        EXPECT_EQ(texts(query.document, query.xpath), query.texts) << query.document << query.xpath;
    }
}

TEST_F(XmlHelperTest, EncodingsOfADocumentBecomeUtf8)
{
    std::string const umlaut = "\xC3\xA4";

    EXPECT_THAT(texts("<n>" + umlaut + "</n>", "/n"), ElementsAre(umlaut));
    EXPECT_THAT(texts("\xEF\xBB\xBF<n>" + umlaut + "</n>", "/n"), ElementsAre(umlaut));
    EXPECT_THAT(texts("<?xml version='1.0' encoding='ISO-8859-1'?><n>\xE4</n>", "/n"), ElementsAre(umlaut));
    EXPECT_THAT(texts(toUtf16("<?xml version='1.0' encoding='UTF-16'?><n>&#xE4;</n>"), "/n"), ElementsAre(umlaut));
    EXPECT_THAT([&] { texts("<n>\xE4</n>", "/n"); },
                ThrowsMessage<std::runtime_error>(StrEq("Could not open file"))); // no UTF-8
}

TEST_F(XmlHelperTest, EncodedDocumentsAreValidated)
{
    std::string latin = "<?xml version='1.0' encoding='ISO-8859-1'?>" + bare;
    latin.replace(latin.find("<friendlyName/>"), 15, "<friendlyName>\xE4</friendlyName>");

    EXPECT_NO_THROW(validate(latin));
    EXPECT_NO_THROW(validate(toUtf16("<?xml version='1.0' encoding='UTF-16'?>" + bare)));
}

TEST_F(XmlHelperTest, TenThousandNodesComeInOrder)
{
    std::string document = "<list>";
    std::vector<std::string> expected;
    for (int i = 0; i < 10'000; ++i)
    {
        expected.push_back(std::to_string(i));
        document += "<entry>" + expected.back() + "</entry>";
    }
    document += "</list>";

    EXPECT_EQ(texts(document, "/list/entry"), expected);
}

TEST_F(XmlHelperTest, DocumentThatIsNotWellFormed)
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

TEST_F(XmlHelperTest, ExpressionThatCannotBeEvaluated)
{
    for (std::string const xpath : {"", "//u:device", "//UPNP:device", "//upnp:", "//device[", "nothing()", "$x"})
    {
        EXPECT_THAT([&] { texts(bare, xpath); },
                    ThrowsMessage<std::runtime_error>(StrEq("Failed to create xpath expression")))
            << xpath;
    }
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(XmlHelperTest, SingleTextOfNoneOrSeveralNodes)
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

TEST_F(XmlHelperTest, InvalidDescriptionsAndTheirFaults)
{
    std::string const upnp = "{urn:schemas-upnp-org:device-1-0}";
    EXPECT_THAT(faultsOf(begin + "</root>"),
                ElementsAre("XML Validation ERROR: Element '" + upnp +
                            "root': Missing child element(s). Expected is ( " + upnp + "device ).\n"));
    EXPECT_THAT(faultsOf(begin + "<device><friendlyName/><modelName/><UDN>7</UDN></device></root>"),
                ElementsAre("XML Validation ERROR: Element '" + upnp +
                            "UDN': [facet 'pattern'] The value '7' is not accepted by the pattern "
                            "'uuid:[0-9a-f\\-]+'.\n"));
    EXPECT_THAT(faultsOf("<root/>"), ElementsAre("XML Validation ERROR: Element 'root': No matching global declaration "
                                                 "available for the validation root.\n"));
}

TEST_F(XmlHelperTest, SchemaWithFaults)
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

TEST_F(XmlHelperTest, SchemaWithAWarningServes)
{
    std::string const xsd = R"(<xs:schema xmlns:xs="http://www.w3.org/2001/XMLSchema">
<xs:import namespace="urn:other" schemaLocation="/nonexistent.xsd"/><xs:element name="a"/></xs:schema>)";

    EXPECT_NO_THROW(validate("<a/>", xsd));
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(XmlHelperTest, LibXmlServesAgainAfterEachCleanUp)
{
    for (int i = 0; i < 20; ++i)
    {
        ASSERT_NO_THROW(validate(sensor));
        ASSERT_THAT(texts(gateway, "//upnp:modelName"), ElementsAre("GX", "GX-P"));
        watch.freeWhatIsLeft();
    }
}

TEST_F(XmlHelperTest, OneThreadAfterTheOtherMayUseIt)
{
    for (int i = 0; i < 3; ++i)
    {
        std::thread thread(
            [this]
            {
                EXPECT_NO_THROW(validate(sensor));
                EXPECT_THAT(texts(sensor, "//upnp:UDN"), ElementsAre("uuid:0a-7"));
            });
        thread.join();
        watch.freeWhatIsLeft();
    }
    EXPECT_THAT(texts(sensor, "//upnp:UDN"), ElementsAre("uuid:0a-7"));
}

/// Sees what libxml2 wants to read beside the document, and refuses it.
class HostileDocumentTest : public XmlHelperTest
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

TEST_F(HostileDocumentTest, EntityReferenceMakesADocumentInvalid)
{
    for (std::string const definition : {"'x'", "SYSTEM 'file:///etc/passwd'"})
    {
        EXPECT_THAT(faultsOf("<!DOCTYPE root [<!ENTITY e " + definition + ">]>" + begin +
                             "<device><friendlyName>&e;</friendlyName><modelName/><UDN>uuid:1</UDN></device></root>"),
                    ElementsAre(HasSubstr("there is at least one entity reference in the node-tree")));
    }
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

TEST_F(XmlHelperTest, SchemaIsNotReadFromTheNetwork)
{
    auto const result = runInChild(
        [&]
        {
            EXPECT_THAT([&] { sut.validateAgainstXSD(std::stringstream(bare), "http://192.0.2.1/device.xsd"); },
                        ThrowsMessage<std::runtime_error>(StrEq("Failed to load the XML schema")));
            return HasFailure() ? 1 : 0;
        });

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(result.output, HasSubstr("Attempt to load network entity http://192.0.2.1/device.xsd"));
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
