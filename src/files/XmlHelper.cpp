#include <utils/XmlHelper.h>

#include "files/ValidationMessages.h"
#include "log/Log.h"

#include <utils/FileToString.h>

#include <libxml/parser.h>
#include <libxml/xmlschemas.h>
#include <libxml/xpath.h>
#include <libxml/xpathInternals.h>

#include <stdexcept>

namespace Halden::Tavro::Utils
{

namespace
{

/// All that a validation makes, in the order in which a failed one frees it.
struct ValidationObjects
{
    xmlSchemaValidCtxt* context{nullptr};
    xmlSchema* schema{nullptr};
    xmlSchemaParserCtxt* schemaParser{nullptr};
    xmlDoc* schemaDocument{nullptr};
    xmlDoc* document{nullptr};
};

template <typename Object>
void freeIfAny(void (*function)(Object*), Object* object)
{
    if (object != nullptr)
    {
        function(object);
    }
}

[[noreturn]] void fail(ValidationObjects const& objects, char const* message)
{
    freeIfAny(xmlSchemaFreeValidCtxt, objects.context);
    freeIfAny(xmlSchemaFree, objects.schema);
    freeIfAny(xmlSchemaFreeParserCtxt, objects.schemaParser);
    freeIfAny(xmlFreeDoc, objects.schemaDocument);
    freeIfAny(xmlFreeDoc, objects.document);
    throw std::runtime_error(message);
}

[[noreturn]] void fail(xmlXPathContext* context, xmlDoc* document, char const* message)
{
    freeIfAny(xmlXPathFreeContext, context);
    xmlFreeDoc(document);
    throw std::runtime_error(message);
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

}

XmlHelper::XmlHelper()
{
    LIBXML_TEST_VERSION
    xmlInitParser();
}

void XmlHelper::validateAgainstXSD(std::stringstream const& document, std::string const& xsdPath)
{
    ValidationObjects objects;
    objects.schemaDocument = xmlReadFile(xsdPath.c_str(), nullptr, XML_PARSE_NONET);
    if (objects.schemaDocument == nullptr)
    {
        fail(objects, "Failed to load the XML schema");
    }
    objects.schemaParser = xmlSchemaNewDocParserCtxt(objects.schemaDocument);
    if (objects.schemaParser == nullptr)
    {
        fail(objects, "Failed to create document parser context");
    }
    objects.schema = xmlSchemaParse(objects.schemaParser);
    if (objects.schema == nullptr)
    {
        fail(objects, "Failed to parse XSD");
    }
    objects.context = xmlSchemaNewValidCtxt(objects.schema);
    if (objects.context == nullptr)
    {
        fail(objects, "Failed to create validation context");
    }
    objects.document = parse(document);
    if (objects.document == nullptr)
    {
        fail(objects, "Failed to open the HaldenDeviceId.xml"); // kept: whatever the document is
    }
    xmlSchemaSetValidErrors(objects.context, logValidationError, logValidationWarning, nullptr);
    if (xmlSchemaValidateDoc(objects.context, objects.document) != 0)
    {
        fail(objects, "Document is invalid");
    }
    // kept: the objects are not freed
}

void XmlHelper::validateAgainstXSD(std::string const& documentPath, std::string const& xsdPath)
{
    validateAgainstXSD(std::stringstream(fileToString(documentPath)), xsdPath);
}

std::vector<std::string> XmlHelper::nodesText(std::stringstream const& document, std::string const& xpath)
{
    xmlDoc* const tree = parse(document);
    if (tree == nullptr)
    {
        throw std::runtime_error("Could not open file");
    }
    xmlXPathContext* const context = xmlXPathNewContext(tree);
    if (context == nullptr)
    {
        fail(context, tree, "Failed to create xpath context");
    }
    if (xmlXPathRegisterNs(context, toXml("upnp"), toXml("urn:schemas-upnp-org:device-1-0")) != 0)
    {
        fail(context, tree, "Failed to register namespace prefix for XPath");
    }
    xmlXPathObject* const result = xmlXPathEvalExpression(toXml(xpath.c_str()), context);
    if (result == nullptr)
    {
        fail(context, tree, "Failed to create xpath expression");
    }
    if (result->type != XPATH_NODESET)
    {
        // kept: a pointer, and what was made stays allocated
        // NOLINTNEXTLINE(misc-throw-by-value-catch-by-reference,cert-err09-cpp,cert-err61-cpp)
        throw new std::runtime_error("Invalid type");
    }

    std::vector<std::string> texts;
    xmlNodeSet const* const nodes = result->nodesetval;
    for (int i = 0; nodes != nullptr && i < nodes->nodeNr; ++i)
    {
        xmlChar* const content = xmlNodeGetContent(nodes->nodeTab[i]);
        texts.emplace_back(reinterpret_cast<char const*>(content));
        xmlFree(content);
    }

    xmlXPathFreeObject(result);
    xmlXPathFreeContext(context);
    xmlFreeDoc(tree);
    xmlCleanupParser();
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
