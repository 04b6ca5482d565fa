// Validates any bytes against the schema of a device description.

#include <log/Logger.h>
#include <utils/XmlHelper.h>

#include "../files/LibXmlWatch.h"

#include <libxml/xmlerror.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <stdexcept>
#include <string>

using namespace Halden::Tavro;

namespace
{

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
    // A message that quotes more than this may be longer than its buffer, which ends the process on purpose. So does
    // an attribute with many references to an entity.
    constexpr std::size_t longest = 2048;
    std::string const text(reinterpret_cast<char const*>(data), size);
    if (size > longest || text.find("<!ENTITY") != std::string::npos)
    {
        return 0;
    }
    Log::LoggerProxy::instance().setThreshold(Log::Severity::Critical);
    xmlSetGenericErrorFunc(nullptr, ignore);
    TestSupport::LibXmlWatch watch; // frees what a success leaves
    Utils::XmlHelper xml;
    try
    {
        xml.validateAgainstXSD(std::stringstream(text), XSD);
        require(watch.left().size() == 5);
    }
    catch (std::runtime_error const&)
    {
        require(watch.left().empty());
    }
    return 0;
}
