// Documents as devices have them.

#include <utils/XmlHelper.h>

#include "files/DescriptionTest.h"

#include <gmock/gmock.h>

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

std::string toUtf16(std::string const& ascii)
{
    std::string text = "\xFF\xFE"; // little-endian
    for (char const character : ascii)
    {
        text += {character, '\0'};
    }
    return text;
}

class XmlHelperTest : public DescriptionTest
{
};

TEST_F(XmlHelperTest, DescriptionsOfSeveralShapesAreValid)
{
    for (std::string const& document : {sensor, gateway, bare})
    {
        EXPECT_NO_THROW(validate(document)) << document;
    }
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(XmlHelperTest, ExpressionsSelectTheTextsOfDescriptions)
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

TEST_F(XmlHelperTest, TextOfANodeIsAllThatIsInItButItsMarkup)
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

TEST_F(XmlHelperTest, LibXmlServesAgainAfterEachReading)
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

}

}
