// Validates any bytes against the schema of a device description.

#include <utils/XmlHelper.h>

#include "files/LibXmlWatch.h"
#include "fuzz/XmlFuzz.h"

#include <cstddef>
#include <cstdint>
#include <sstream>
#include <stdexcept>
#include <string>

namespace Halden::Tavro::Utils
{

using namespace TestSupport;

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    // An attribute with many references to an entity makes a message that does not fit, too.
    std::string const text(reinterpret_cast<char const*>(data), size);
    if (size > longestDocument || text.find("<!ENTITY") != std::string::npos)
    {
        return 0;
    }
    beQuiet();
    LibXmlWatch watch; // frees what a success leaves
    XmlHelper xml;
    try
    {
        xml.validateAgainstXSD(std::stringstream(text), XSD);
        require(watch.left().size() == (isHardened() ? 0 : 5));
    }
    catch (std::runtime_error const&)
    {
        require(watch.left().empty());
    }
    return 0;
}

}
