#include <utils/XmlHelper.h>

#include "build/Hardened.h"
#include "files/ValidationMessages.h"
#include "log/Log.h"

#include <utils/FileToString.h>

#include <libxml/catalog.h>
#include <libxml/parser.h>
#include <libxml/xmlschemas.h>
#include <libxml/xmlschemastypes.h>
#include <libxml/xpath.h>
#include <libxml/xpathInternals.h>

#include <memory>
#include <mutex>
#include <stdexcept>

namespace Halden::Tavro::Utils
{

namespace
{

struct Free
{
    void operator()(xmlDoc* object) const { xmlFreeDoc(object); }
    void operator()(xmlSchemaParserCtxt* object) const { xmlSchemaFreeParserCtxt(object); }
    void operator()(xmlSchema* object) const { xmlSchemaFree(object); }
    void operator()(xmlSchemaValidCtxt* object) const { xmlSchemaFreeValidCtxt(object); }
    void operator()(xmlXPathContext* object) const { xmlXPathFreeContext(object); }
    void operator()(xmlXPathObject* object) const { xmlXPathFreeObject(object); }
    void operator()(xmlChar* text) const { xmlFree(text); }
};

template <typename Object>
using Owned = std::unique_ptr<Object, Free>;

template <typename Object>
Owned<Object> require(Object* object, char const* failure)
{
    if (object == nullptr)
    {
        throw std::runtime_error(failure);
    }
    return Owned<Object>(object);
}

/// Nothing in the hardened build, which frees whatever it has made.
template <typename... Objects>
void leaveAllocated(Owned<Objects>&... objects)
{
    if constexpr (!hardened)
    {
        (static_cast<void>(objects.release()), ...);
    }
}

xmlChar const* toXml(char const* text)
{
    return reinterpret_cast<xmlChar const*>(text);
}

xmlDoc* parse(std::stringstream const& document)
{
    std::string const text = document.str();
    return xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr, 0);
}

/// @param content null for a node that has none
std::string toText(xmlChar const* content)
{
    if constexpr (hardened)
    {
        if (content == nullptr)
        {
            return {};
        }
    }
    // kept: [node-without-content] null throws what services take for a fault of the document
    return reinterpret_cast<char const*>(content);
}

std::vector<std::string> textsOf(std::stringstream const& document, std::string const& xpath)
{
    auto tree = require(parse(document), "Could not open file");
    auto context = require(xmlXPathNewContext(tree.get()), "Failed to create xpath context");
    if (xmlXPathRegisterNs(context.get(), toXml("upnp"), toXml("urn:schemas-upnp-org:device-1-0")) != 0)
    {
        throw std::runtime_error("Failed to register namespace prefix for XPath");
    }
    auto result =
        require(xmlXPathEvalExpression(toXml(xpath.c_str()), context.get()), "Failed to create xpath expression");
    if (result->type != XPATH_NODESET)
    {
        leaveAllocated(tree, context, result);
        // kept: [thrown-pointer] services catch the pointer
        // NOLINTNEXTLINE(misc-throw-by-value-catch-by-reference,cert-err09-cpp,cert-err61-cpp)
        throw new std::runtime_error("Invalid type");
    }

    std::vector<std::string> texts;
    xmlNodeSet const* const nodes = result->nodesetval;
    for (int i = 0; nodes != nullptr && i < nodes->nodeNr; ++i)
    {
        Owned<xmlChar> const content(xmlNodeGetContent(nodes->nodeTab[i]));
        if (content == nullptr)
        {
            leaveAllocated(tree, context, result);
        }
        texts.push_back(toText(content.get()));
    }
    return texts;
}

void prepareLibXml()
{
    LIBXML_TEST_VERSION
    xmlInitParser();
}

/// What libxml2 would make on first use, without a lock.
void prepareLibXmlForThreads()
{
    xmlInitializeCatalog();
    xmlSchemaInitTypes();
}

}

XmlHelper::XmlHelper()
{
    if constexpr (hardened)
    {
        static std::mutex mutex;
        std::lock_guard const lock(mutex);
        prepareLibXml();
        prepareLibXmlForThreads();
    }
    else
    {
        prepareLibXml();
    }
}

void XmlHelper::validateAgainstXSD(std::stringstream const& document, std::string const& xsdPath)
{
    Owned<xmlDoc> tree; // the last to be freed
    auto schemaTree = require(xmlReadFile(xsdPath.c_str(), nullptr, XML_PARSE_NONET), "Failed to load the XML schema");
    auto parser = require(xmlSchemaNewDocParserCtxt(schemaTree.get()), "Failed to create document parser context");
    auto schema = require(xmlSchemaParse(parser.get()), "Failed to parse XSD");
    auto context = require(xmlSchemaNewValidCtxt(schema.get()), "Failed to create validation context");
    // kept: [halden-device-id] services look for this text
    tree = require(parse(document), "Failed to open the HaldenDeviceId.xml");
    xmlSchemaSetValidErrors(context.get(), logValidationError, logValidationWarning, nullptr);
    if (xmlSchemaValidateDoc(context.get(), tree.get()) != 0)
    {
        throw std::runtime_error("Document is invalid");
    }
    // kept: [validation-leak] the time and memory that services reckon with
    leaveAllocated(tree, schemaTree, parser, schema, context);
}

void XmlHelper::validateAgainstXSD(std::string const& documentPath, std::string const& xsdPath)
{
    validateAgainstXSD(std::stringstream(fileToString(documentPath)), xsdPath);
}

std::vector<std::string> XmlHelper::nodesText(std::stringstream const& document, std::string const& xpath)
{
    std::vector<std::string> texts = textsOf(document, xpath);
    if constexpr (!hardened)
    {
        xmlCleanupParser(); // kept: [parser-cleanup] services want libxml2 to hold no memory between readings
    }
    return texts;
}

std::vector<std::string> XmlHelper::nodesText(std::string const& documentPath, std::string const& xpath)
{
    return nodesText(std::stringstream(fileToString(documentPath)), xpath);
}

std::string XmlHelper::singleNodeText(std::stringstream const& document, std::string const& xpath)
{
    std::vector<std::string> const texts = nodesText(document, xpath);
    if (texts.size() == 1)
    {
        return texts.front();
    }
    TAVRO_LOG(Log::Severity::Error, "Expect one single node for xpath '%s' but got %lu", xpath.c_str(),
              static_cast<unsigned long>(texts.size()));
    throw std::runtime_error("None or more than one node found");
}

std::string XmlHelper::singleNodeText(std::string const& documentPath, std::string const& xpath)
{
    return singleNodeText(std::stringstream(fileToString(documentPath)), xpath);
}

}
