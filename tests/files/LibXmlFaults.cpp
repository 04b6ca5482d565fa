#include "files/LibXmlFaults.h"

#include <libxml/parser.h>
#include <libxml/xmlschemas.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <memory>

namespace Halden::Tavro::TestSupport
{

namespace
{

[[gnu::format(printf, 2, 3)]] void addFault(void* faults, char const* format, ...)
{
    std::array<char, 10'000> text{};
    va_list values;
    va_start(values, format);
    static_cast<void>(std::vsnprintf(text.data(), text.size(), format, values));
    va_end(values);
    static_cast<std::vector<std::string>*>(faults)->emplace_back(text.data());
}

}

std::vector<std::string> libXmlFaults(std::string const& document, std::string const& xsdPath)
{
    std::unique_ptr<xmlDoc, void (*)(xmlDoc*)> const tree(
        xmlReadMemory(document.data(), static_cast<int>(document.size()), nullptr, nullptr, 0), xmlFreeDoc);
    std::unique_ptr<xmlSchemaParserCtxt, void (*)(xmlSchemaParserCtxt*)> const parser(
        xmlSchemaNewParserCtxt(xsdPath.c_str()), xmlSchemaFreeParserCtxt);
    std::unique_ptr<xmlSchema, void (*)(xmlSchema*)> const schema(xmlSchemaParse(parser.get()), xmlSchemaFree);
    std::unique_ptr<xmlSchemaValidCtxt, void (*)(xmlSchemaValidCtxt*)> const context(
        xmlSchemaNewValidCtxt(schema.get()), xmlSchemaFreeValidCtxt);

    std::vector<std::string> faults;
    xmlSchemaSetValidErrors(context.get(), addFault, addFault, &faults);
    xmlSchemaValidateDoc(context.get(), tree.get());
    return faults;
}

}
