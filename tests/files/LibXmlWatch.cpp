#include "files/LibXmlWatch.h"

#include "support/CallDouble.h"

#include <libxml/catalog.h>
#include <libxml/globals.h>
#include <libxml/parser.h>
#include <libxml/xmlschemas.h>
#include <libxml/xmlschemastypes.h>
#include <libxml/xpath.h>
#include <libxml/xpathInternals.h>

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>

namespace Halden::Tavro::TestSupport
{

namespace
{

struct Object
{
    void const* address;
    std::string name;
    std::function<void()> free;
};

struct State
{
    bool watching{false};
    std::vector<std::string> calls;
    std::map<std::string, int> failures;
    std::vector<Object> objects; // not freed, in the order of their making
    LibXmlWatch::Callback error{nullptr};
    LibXmlWatch::Callback warning{nullptr};
    std::size_t bytes{0};
};

State& state()
{
    static State& instance = *new State; // never destroyed: libxml2 frees memory until the process has ended
    return instance;
}

auto find(void const* address)
{
    auto& objects = state().objects;
    return std::find_if(objects.begin(), objects.end(), [&](auto const& object) { return object.address == address; });
}

std::string nameOf(void const* address)
{
    if (address == nullptr)
    {
        return "null";
    }
    auto const object = find(address);
    return object == state().objects.end() ? "unknown" : object->name;
}

std::string textOf(void const* text)
{
    return text == nullptr ? "null" : static_cast<char const*>(text);
}

void note(std::string const& function, std::vector<std::string> const& arguments)
{
    if (!state().watching)
    {
        return;
    }
    std::string call = function + '(';
    for (std::string const& argument : arguments)
    {
        call += (&argument == &arguments.front() ? "" : ", ") + argument;
    }
    state().calls.push_back(call + ')');
}

/// Whether this call is the one to fail, with that number.
bool fails(std::string const& function, int* number = nullptr)
{
    auto const failure = state().failures.find(function);
    if (failure == state().failures.end())
    {
        return false;
    }
    if (number != nullptr)
    {
        *number = failure->second;
    }
    state().failures.erase(failure);
    return true;
}

template <typename Made>
Made* made(char const* name, Made* object, void (*free)(Made*))
{
    if (state().watching && object != nullptr)
    {
        state().objects.push_back({object, name, [=] { free(object); }});
    }
    return object;
}

/// A call of a function that makes an object of another one.
template <typename Made, typename From>
Made* makeOf(char const* function, char const* name, Made* (*real)(From*), From* from, void (*free)(Made*))
{
    note(function, {nameOf(from)});
    return fails(function) ? nullptr : made(name, real(from), free);
}

void freed(char const* function, void const* address)
{
    note(function, {nameOf(address)});
    auto const object = find(address);
    if (object != state().objects.end())
    {
        state().objects.erase(object);
    }
}

void count(void* block)
{
    state().bytes += malloc_usable_size(block);
}

void countOff(void* block)
{
    state().bytes -= malloc_usable_size(block);
}

void* allocate(std::size_t size)
{
    void* const block = std::malloc(size);
    if (block != nullptr)
    {
        count(block);
    }
    return block;
}

void release(void* block)
{
    if (block == nullptr)
    {
        return;
    }
    if (nameOf(block) == "content")
    {
        freed("xmlFree", block);
    }
    countOff(block);
    std::free(block);
}

void* reallocate(void* block, std::size_t size)
{
    if (block == nullptr)
    {
        return allocate(size);
    }
    countOff(block);
    void* const other = std::realloc(block, size);
    count(other == nullptr ? block : other);
    return other;
}

char* duplicate(char const* text)
{
    std::size_t const size = std::strlen(text) + 1;
    void* const copy = allocate(size);
    return copy == nullptr ? nullptr : static_cast<char*>(std::memcpy(copy, text, size));
}

/// Before main: the functions that libxml2 takes its memory from must not change once it has some.
[[maybe_unused]] int const memoryIsCounted = xmlMemSetup(release, allocate, reallocate, duplicate);

}

LibXmlWatch::LibXmlWatch()
{
    state().watching = true;
}

LibXmlWatch::~LibXmlWatch()
{
    freeWhatIsLeft();
    state().watching = false;
    state().calls.clear();
    state().failures.clear();
    state().error = nullptr;
    state().warning = nullptr;
}

void LibXmlWatch::fail(std::string const& function, int number)
{
    state().failures[function] = number;
}

std::vector<std::string> const& LibXmlWatch::calls() const
{
    return state().calls;
}

std::vector<std::string> LibXmlWatch::left() const
{
    std::vector<std::string> names;
    for (Object const& object : state().objects)
    {
        names.push_back(object.name);
    }
    return names;
}

void LibXmlWatch::freeWhatIsLeft()
{
    while (!state().objects.empty())
    {
        auto const free = state().objects.back().free;
        free();
    }
}

LibXmlWatch::Callback LibXmlWatch::errorCallback() const
{
    return state().error;
}

LibXmlWatch::Callback LibXmlWatch::warningCallback() const
{
    return state().warning;
}

std::size_t LibXmlWatch::bytes()
{
    xmlResetLastError();
    return state().bytes;
}

// The doubles. Each notes the call, and passes it on unless it is to fail.

// Looked up once only, for it is called some hundred thousand times.
#define REAL(function)                                                                                                 \
    (                                                                                                                  \
        []                                                                                                             \
        {                                                                                                              \
            static auto const real = systemFunction<decltype(&(function))>(#function);                                 \
            return real;                                                                                               \
        }())

extern "C"
{

    void xmlCheckVersion(int version)
    {
        note("xmlCheckVersion", {std::to_string(version)});
        REAL(xmlCheckVersion)(version);
    }

    void xmlInitParser()
    {
        note("xmlInitParser", {});
        REAL(xmlInitParser)();
    }

    void xmlInitializeCatalog()
    {
        note("xmlInitializeCatalog", {});
        REAL(xmlInitializeCatalog)();
    }

    decltype(xmlSchemaInitTypes()) xmlSchemaInitTypes() // newer versions say whether it has succeeded
    {
        note("xmlSchemaInitTypes", {});
        return REAL(xmlSchemaInitTypes)();
    }

    void xmlCleanupParser()
    {
        note("xmlCleanupParser", {});
        REAL(xmlCleanupParser)();
    }

    xmlDocPtr xmlReadFile(char const* url, char const* encoding, int options)
    {
        note("xmlReadFile", {textOf(url), textOf(encoding), std::to_string(options)});
        return fails("xmlReadFile") ? nullptr : made("XSD", REAL(xmlReadFile)(url, encoding, options), xmlFreeDoc);
    }

    xmlDocPtr xmlReadMemory(char const* buffer, int size, char const* url, char const* encoding, int options)
    {
        note("xmlReadMemory", {std::string(buffer, static_cast<std::size_t>(size)), textOf(url), textOf(encoding),
                               std::to_string(options)});
        return fails("xmlReadMemory")
                   ? nullptr
                   : made("document", REAL(xmlReadMemory)(buffer, size, url, encoding, options), xmlFreeDoc);
    }

    void xmlFreeDoc(xmlDocPtr document)
    {
        freed("xmlFreeDoc", document);
        REAL(xmlFreeDoc)(document);
    }

    xmlSchemaParserCtxtPtr xmlSchemaNewDocParserCtxt(xmlDocPtr document)
    {
        return makeOf("xmlSchemaNewDocParserCtxt", "parser", REAL(xmlSchemaNewDocParserCtxt), document,
                      xmlSchemaFreeParserCtxt);
    }

    void xmlSchemaFreeParserCtxt(xmlSchemaParserCtxtPtr parser)
    {
        freed("xmlSchemaFreeParserCtxt", parser);
        REAL(xmlSchemaFreeParserCtxt)(parser);
    }

    xmlSchemaPtr xmlSchemaParse(xmlSchemaParserCtxtPtr parser)
    {
        return makeOf("xmlSchemaParse", "schema", REAL(xmlSchemaParse), parser, xmlSchemaFree);
    }

    void xmlSchemaFree(xmlSchemaPtr schema)
    {
        freed("xmlSchemaFree", schema);
        REAL(xmlSchemaFree)(schema);
    }

    xmlSchemaValidCtxtPtr xmlSchemaNewValidCtxt(xmlSchemaPtr schema)
    {
        return makeOf("xmlSchemaNewValidCtxt", "validation", REAL(xmlSchemaNewValidCtxt), schema,
                      xmlSchemaFreeValidCtxt);
    }

    void xmlSchemaFreeValidCtxt(xmlSchemaValidCtxtPtr validation)
    {
        freed("xmlSchemaFreeValidCtxt", validation);
        REAL(xmlSchemaFreeValidCtxt)(validation);
    }

    void xmlSchemaSetValidErrors(xmlSchemaValidCtxtPtr validation, xmlSchemaValidityErrorFunc error,
                                 xmlSchemaValidityWarningFunc warning, void* data)
    {
        note("xmlSchemaSetValidErrors", {nameOf(validation), error == nullptr ? "null" : "callback",
                                         warning == nullptr ? "null" : "callback", nameOf(data)});
        state().error = error;
        state().warning = warning;
        REAL(xmlSchemaSetValidErrors)(validation, error, warning, data);
    }

    int xmlSchemaValidateDoc(xmlSchemaValidCtxtPtr validation, xmlDocPtr document)
    {
        note("xmlSchemaValidateDoc", {nameOf(validation), nameOf(document)});
        int number = 0;
        return fails("xmlSchemaValidateDoc", &number) ? number : REAL(xmlSchemaValidateDoc)(validation, document);
    }

    xmlXPathContextPtr xmlXPathNewContext(xmlDocPtr document)
    {
        return makeOf("xmlXPathNewContext", "context", REAL(xmlXPathNewContext), document, xmlXPathFreeContext);
    }

    void xmlXPathFreeContext(xmlXPathContextPtr context)
    {
        freed("xmlXPathFreeContext", context);
        REAL(xmlXPathFreeContext)(context);
    }

    int xmlXPathRegisterNs(xmlXPathContextPtr context, xmlChar const* prefix, xmlChar const* uri)
    {
        note("xmlXPathRegisterNs", {nameOf(context), textOf(prefix), textOf(uri)});
        int number = 0;
        return fails("xmlXPathRegisterNs", &number) ? number : REAL(xmlXPathRegisterNs)(context, prefix, uri);
    }

    xmlXPathObjectPtr xmlXPathEvalExpression(xmlChar const* expression, xmlXPathContextPtr context)
    {
        note("xmlXPathEvalExpression", {textOf(expression), nameOf(context)});
        return fails("xmlXPathEvalExpression")
                   ? nullptr
                   : made("result", REAL(xmlXPathEvalExpression)(expression, context), xmlXPathFreeObject);
    }

    void xmlXPathFreeObject(xmlXPathObjectPtr result)
    {
        freed("xmlXPathFreeObject", result);
        REAL(xmlXPathFreeObject)(result);
    }

    xmlChar* xmlNodeGetContent(xmlNode const* node)
    {
        note("xmlNodeGetContent", {textOf(node->name)});
        return fails("xmlNodeGetContent")
                   ? nullptr
                   : made(
                         "content", REAL(xmlNodeGetContent)(node), +[](xmlChar* content) { xmlFree(content); });
    }
}

}
