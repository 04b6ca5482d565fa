#pragma once

#include "files/LibXmlWatch.h"
#include "files/TextFile.h"
#include "support/LogCapture.h"

#include <utils/XmlHelper.h>

#include <gmock/gmock.h>

#include <cstddef>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace Halden::Tavro::TestSupport
{

inline std::string const xsd = R"(<xs:schema xmlns:xs="http://www.w3.org/2001/XMLSchema">
<xs:element name="device">
<xs:complexType><xs:sequence><xs:element name="name" type="xs:string"/></xs:sequence></xs:complexType>
</xs:element>
</xs:schema>)";

inline std::string const document = "<device><name>A</name><name>B</name></device>";
inline std::string const validDocument = "<device><name>A</name></device>";

/// Validates and reads small documents, with an eye on each call to libxml2.
class XmlHelperWatched : public testing::Test
{
protected:
    XmlHelperWatched()
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

    /// Starts with nothing noted.
    void watchAnew()
    {
        watch.reset();
        watch.emplace();
    }

    LogCapture log;
    TextFile const xsdFile{xsd};
    Utils::XmlHelper sut;
    std::optional<LibXmlWatch> watch;
};

inline std::vector<std::string> const querySteps{
    "xmlReadMemory(" + document + ", null, null, 0)",
    "xmlXPathNewContext(document)",
    "xmlXPathRegisterNs(context, upnp, urn:schemas-upnp-org:device-1-0)",
    "xmlXPathEvalExpression(//name, context)",
    "xmlNodeGetContent(name)",
    "xmlFree(content)",
    "xmlNodeGetContent(name)",
    "xmlFree(content)",
};

inline std::vector<std::string> const queryEnd{
    "xmlXPathFreeObject(result)",
    "xmlXPathFreeContext(context)",
    "xmlFreeDoc(document)",
};

/// The texts one after the other.
inline std::vector<std::string> operator+(std::vector<std::string> left, std::vector<std::string> const& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

/// The first so many.
inline std::vector<std::string> first(std::size_t count, std::vector<std::string> const& steps)
{
    return {steps.begin(), steps.begin() + static_cast<std::ptrdiff_t>(count)};
}

/// The exception that a call throws as a pointer; null when it throws none, or any other way.
inline std::unique_ptr<std::runtime_error> pointerThrownBy(std::function<void()> const& call)
{
    try
    {
        call();
    }
    catch (std::exception const&)
    {
        ADD_FAILURE() << "thrown by value";
    }
    catch (std::runtime_error* error)
    {
        return std::unique_ptr<std::runtime_error>(error);
    }
    return nullptr;
}

/// What a call leaves in libxml2's memory, once all that is made only once is there.
inline std::size_t bytesLeftBy(std::function<void()> const& call)
{
    call();
    std::size_t const before = LibXmlWatch::bytes();
    call();
    return LibXmlWatch::bytes() - before;
}

}
