// Looks for texts in any bytes. The first byte chooses the expression, the rest is the document.

#include <log/Logger.h>
#include <utils/XmlHelper.h>

#include "../files/LibXmlWatch.h"

#include <libxml/xmlerror.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>

using namespace Halden::Tavro;

namespace
{

/// A few that select many nodes, and some that fail in each of the possible ways.
constexpr std::array expressions{
    "//upnp:service/upnp:serviceId",
    "//*",
    "//text()",
    "//@*",
    "//comment() | //processing-instruction()",
    "//namespace::*",
    "//node()",
    "/*/*[last()]",
    "//*[not(*)]/..",
    "*",
    "count(//*)",
    "string(/)",
    "//u:device",
    "//*[",
    "id('a')",
    "//*[@*]/following::*",
};

void require(bool condition)
{
    if (!condition)
    {
        std::abort();
    }
}

void ignore(void* /*data*/, char const* /*format*/, ...) {}

}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    constexpr std::size_t longest = 2048; // else entities, which are expanded, fill the memory
    if (size == 0 || size > longest)
    {
        return 0;
    }
    Log::LoggerProxy::instance().setThreshold(Log::Severity::Critical);
    xmlSetGenericErrorFunc(nullptr, ignore);
    std::string const xpath = expressions.at(data[0] % expressions.size());
    std::stringstream const document(std::string(reinterpret_cast<char const*>(data) + 1, size - 1));
    TestSupport::LibXmlWatch watch; // frees what the exceptions leave
    Utils::XmlHelper xml;
    try
    {
        static_cast<void>(xml.nodesText(document, xpath));
        require(watch.left().empty());
        require(watch.calls().back() == "xmlCleanupParser()");
    }
    catch (std::runtime_error const&)
    {
        require(watch.left().empty());
    }
    catch (std::logic_error const&)
    {
        require(watch.left().size() == 3); // a processing instruction without data
    }
    catch (std::runtime_error* error)
    {
        std::unique_ptr<std::runtime_error> const owner(error);
        require(watch.left().size() == 3);
    }
    return 0;
}
