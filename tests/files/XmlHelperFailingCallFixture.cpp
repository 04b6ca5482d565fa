#include "files/XmlHelperFailingCallFixture.h"

#include <libxml/xpathInternals.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>

namespace Halden::Tavro::TestSupport
{

CallDouble<xmlDocPtr(char const*, char const*, int)> readFile{"xmlReadFile"};
CallDouble<xmlDocPtr(char const*, int, char const*, char const*, int)> readMemory{"xmlReadMemory"};
CallDouble<xmlSchemaParserCtxtPtr(xmlDocPtr)> newDocParserCtxt{"xmlSchemaNewDocParserCtxt"};
CallDouble<xmlSchemaPtr(xmlSchemaParserCtxtPtr)> schemaParse{"xmlSchemaParse"};
CallDouble<xmlSchemaValidCtxtPtr(xmlSchemaPtr)> newValidCtxt{"xmlSchemaNewValidCtxt"};
CallDouble<int(xmlSchemaValidCtxtPtr, xmlDocPtr)> validateDoc{"xmlSchemaValidateDoc"};
CallDouble<xmlXPathContextPtr(xmlDocPtr)> newContext{"xmlXPathNewContext"};
CallDouble<int(xmlXPathContextPtr, xmlChar const*, xmlChar const*)> registerNs{"xmlXPathRegisterNs"};
CallDouble<xmlXPathObjectPtr(xmlChar const*, xmlXPathContextPtr)> evalExpression{"xmlXPathEvalExpression"};
CallDouble<xmlChar*(xmlNode const*)> getContent{"xmlNodeGetContent"};

namespace
{

/// What stands before each block of libxml2. All are in a ring, so that the leak checker finds those that the exact
/// build leaves allocated.
struct alignas(std::max_align_t) Head
{
    Head* next;
    Head* previous;
    std::size_t size;
};

Head ring{&ring, &ring, 0};
long blocks = 0;

void* allocate(std::size_t size)
{
    auto* const head = new (std::malloc(sizeof(Head) + size)) Head{ring.next, &ring, size};
    head->next->previous = head;
    ring.next = head;
    ++blocks;
    return head + 1;
}

void release(void* block)
{
    if (block != nullptr)
    {
        auto* const head = static_cast<Head*>(block) - 1;
        head->next->previous = head->previous;
        head->previous->next = head->next;
        --blocks;
        std::free(head);
    }
}

void* reallocate(void* block, std::size_t size)
{
    void* const moved = allocate(size);
    if (block != nullptr)
    {
        std::memcpy(moved, block, std::min(size, (static_cast<Head*>(block) - 1)->size));
        release(block);
    }
    return moved;
}

char* duplicate(char const* text)
{
    return std::strcpy(static_cast<char*>(allocate(std::strlen(text) + 1)), text);
}

/// Before main: the functions that libxml2 takes its memory from must not change once it has some.
[[maybe_unused]] int const blocksAreCounted = xmlMemSetup(release, allocate, reallocate, duplicate);

}

std::string XmlHelperFailingCallFixture::memoryLeft()
{
    xmlResetLastError();
    xmlCleanupParser();
    bool const isMore = blocks > blocksBefore;
    blocksBefore = blocks;
    return isMore ? "memory of libxml2" : "";
}

}

using namespace Halden::Tavro::TestSupport;

extern "C"
{

    xmlDocPtr xmlReadFile(char const* url, char const* encoding, int options)
    {
        return readFile(url, encoding, options);
    }

    xmlDocPtr xmlReadMemory(char const* buffer, int size, char const* url, char const* encoding, int options)
    {
        return readMemory(buffer, size, url, encoding, options);
    }

    xmlSchemaParserCtxtPtr xmlSchemaNewDocParserCtxt(xmlDocPtr document)
    {
        return newDocParserCtxt(document);
    }

    xmlSchemaPtr xmlSchemaParse(xmlSchemaParserCtxtPtr parser)
    {
        return schemaParse(parser);
    }

    xmlSchemaValidCtxtPtr xmlSchemaNewValidCtxt(xmlSchemaPtr schema)
    {
        return newValidCtxt(schema);
    }

    int xmlSchemaValidateDoc(xmlSchemaValidCtxtPtr validation, xmlDocPtr document)
    {
        return validateDoc(validation, document);
    }

    xmlXPathContextPtr xmlXPathNewContext(xmlDocPtr document)
    {
        return newContext(document);
    }

    int xmlXPathRegisterNs(xmlXPathContextPtr context, xmlChar const* prefix, xmlChar const* uri)
    {
        return registerNs(context, prefix, uri);
    }

    xmlXPathObjectPtr xmlXPathEvalExpression(xmlChar const* expression, xmlXPathContextPtr context)
    {
        return evalExpression(expression, context);
    }

    xmlChar* xmlNodeGetContent(xmlNode const* node)
    {
        return getContent(node);
    }
}
