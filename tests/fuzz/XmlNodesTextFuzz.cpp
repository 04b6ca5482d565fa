// Looks for texts in any bytes. The first byte chooses the expression, the rest is the document.

#include <utils/XmlHelper.h>

#include "files/LibXmlWatch.h"
#include "fuzz/XmlFuzz.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;

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

}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    if (size == 0 || size > longestDocument)
    {
        return 0;
    }
    beQuiet();
    std::string const xpath = expressions.at(data[0] % expressions.size());
    std::stringstream const document(std::string(reinterpret_cast<char const*>(data) + 1, size - 1));
    LibXmlWatch watch; // frees what the exceptions leave
    XmlHelper xml;
    try
    {
        static_cast<void>(xml.nodesText(document, xpath));
        require(watch.left().empty());
        require(isHardened() || watch.calls().back() == "xmlCleanupParser()");
    }
    catch (std::runtime_error const&)
    {
        require(watch.left().empty());
    }
    catch (std::logic_error const&)
    {
        require(!isHardened() && watch.left().size() == 3); // a processing instruction without data
    }
    catch (std::runtime_error* error)
    {
        std::unique_ptr<std::runtime_error> const owner(error);
        require(watch.left().size() == (isHardened() ? 0 : 3));
    }
    return 0;
}

}
