// What validations and queries leave behind when one of their calls fails.

#include <utils/XmlHelper.h>

#include "TextFile.h"
#include "support/FailingCalls.h"

#include <gmock/gmock.h>

#include <libxml/parser.h>
#include <libxml/xmlschemas.h>
#include <libxml/xpath.h>
#include <libxml/xpathInternals.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <sstream>
#include <stdexcept>
#include <string>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using testing::IsEmpty;

CallDouble<xmlDocPtr(char const*, char const*, int)> readFile{"xmlReadFile"};
CallDouble<xmlDocPtr(char const*, int, char const*, char const*, int)> readMemory{"xmlReadMemory"};
CallDouble<xmlSchemaParserCtxtPtr(xmlDocPtr)> newDocParserCtxt{"xmlSchemaNewDocParserCtxt"};
CallDouble<xmlSchemaPtr(xmlSchemaParserCtxtPtr)> schemaParse{"xmlSchemaParse"};
CallDouble<xmlSchemaValidCtxtPtr(xmlSchemaPtr)> newValidCtxt{"xmlSchemaNewValidCtxt"};
CallDouble<int(xmlSchemaValidCtxtPtr, xmlDocPtr)> validateDoc{"xmlSchemaValidateDoc"};
CallDouble<xmlXPathContextPtr(xmlDocPtr)> newContext{"xmlXPathNewContext"};
CallDouble<int(xmlXPathContextPtr, xmlChar const*, xmlChar const*)> registerNs{"xmlXPathRegisterNs"};
CallDouble<xmlXPathObjectPtr(xmlChar const*, xmlXPathContextPtr)> evalExpression{"xmlXPathEvalExpression"};

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
}

namespace
{

constexpr auto schema = R"(<xs:schema xmlns:xs="http://www.w3.org/2001/XMLSchema">
<xs:element name="device" type="xs:string"/>
</xs:schema>)";
constexpr auto document = "<device>A text that is longer than any short string</device>";

class XmlHelperFailingCallTest : public testing::Test
{
protected:
    /// Beside what is made on first use, and goes with the parser.
    std::string memoryLeft()
    {
        xmlResetLastError();
        xmlCleanupParser();
        bool const isMore = blocks > blocksBefore;
        blocksBefore = blocks;
        return isMore ? "memory of libxml2" : "";
    }

    TextFile const schemaFile{schema};
    TextFile const documentFile{document};
    XmlHelper sut;
    long blocksBefore{0};
};

// A validation of the exact build that succeeds leaves its objects allocated; one that fails leaves nothing.
TEST_F(XmlHelperFailingCallTest, ValidationThatFailsFreesAllItHasMade)
{
    xmlDocPtr const none = nullptr;
    auto const failures = {callsOf("xmlReadFile", readFile, none, 0),
                           callsOf("xmlReadMemory", readMemory, none, 0),
                           callsOf("xmlSchemaNewDocParserCtxt", newDocParserCtxt, xmlSchemaParserCtxtPtr{}, 0),
                           callsOf("xmlSchemaParse", schemaParse, xmlSchemaPtr{}, 0),
                           callsOf("xmlSchemaNewValidCtxt", newValidCtxt, xmlSchemaValidCtxtPtr{}, 0),
                           callsOf("xmlSchemaValidateDoc", validateDoc, -1, 0),
                           allocations()};

    EXPECT_THAT(leftByFailingCalls(
                    failures, [this] { sut.validateAgainstXSD(documentFile.path(), schemaFile.path()); },
                    [this] { return memoryLeft(); }),
                IsEmpty());
}

TEST_F(XmlHelperFailingCallTest, QueryThatFailsFreesAllItHasMade)
{
    xmlDocPtr const none = nullptr;
    auto const failures = {callsOf("xmlReadMemory", readMemory, none, 0),
                           callsOf("xmlXPathNewContext", newContext, xmlXPathContextPtr{}, 0),
                           callsOf("xmlXPathRegisterNs", registerNs, -1, 0),
                           callsOf("xmlXPathEvalExpression", evalExpression, xmlXPathObjectPtr{}, 0), allocations()};

    EXPECT_THAT(
        leftByFailingCalls(
            failures, [this] { sut.singleNodeText(documentFile.path(), "//device"); }, [this] { return memoryLeft(); }),
        IsEmpty());
}

}

}
