#pragma once

#include "files/LibXmlWatch.h"
#include "files/TextFile.h"
#include "support/LogCapture.h"

#include <utils/XmlHelper.h>

#include <gmock/gmock.h>

#include <sstream>
#include <stdexcept>
#include <string>

namespace Halden::Tavro::TestSupport
{

inline std::string const portXsd = R"(<xs:schema xmlns:xs="http://www.w3.org/2001/XMLSchema">
<xs:element name="device">
<xs:complexType><xs:sequence><xs:element name="port" type="xs:int" maxOccurs="9"/></xs:sequence></xs:complexType>
</xs:element>
</xs:schema>)";

inline std::string withPort(std::string const& port)
{
    return "<device><port>" + port + "</port></device>";
}

/// Validates documents with a port, "device/port", or with several.
class ValidationMessagesFixture : public testing::Test
{
protected:
    ValidationMessagesFixture()
    {
        log.expect(isLine(Log::Severity::Error, "", testing::StartsWith("XML Validation ")));
    }

    void validate(std::string const& document) { sut.validateAgainstXSD(std::stringstream(document), xsdFile.path()); }

    void validateInvalid(std::string const& document)
    {
        EXPECT_THAT([&] { validate(document); },
                    testing::ThrowsMessage<std::runtime_error>(testing::StrEq("Document is invalid")));
    }

    /// Those that a validation installs, which libxml2 may call from then on.
    LibXmlWatch::Callback errorCallback()
    {
        validate(withPort("80"));
        return watch.errorCallback();
    }

    LibXmlWatch::Callback warningCallback()
    {
        validate(withPort("80"));
        return watch.warningCallback();
    }

    LogCapture log;
    LibXmlWatch watch;
    TextFile const xsdFile{portXsd};
    Utils::XmlHelper sut;
};

}
