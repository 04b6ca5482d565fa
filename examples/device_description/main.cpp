// Says what a UPnP device description holds, once it has proved valid.

#include "../support/Files.h"
#include "../support/Program.h"
#include "../support/Xml.h"

#include <log/Logger.h>
#include <utils/FileToString.h>
#include <utils/XmlHelper.h>

#include <cstddef>
#include <exception>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

using namespace Halden::Tavro;

namespace
{

/// Shows what is wrong with a document as a line of this program. Everything else comes as an exception as well.
class FaultPrinter : public Log::LoggerImplIfc
{
public:
    explicit FaultPrinter(std::string file)
        : file(std::move(file))
    {
    }

    void write(Log::Record const& record) override
    {
        std::string text(record.text);
        if (text.rfind("XML Validation ", 0) != 0)
        {
            return;
        }
        text.erase(text.find_last_not_of('\n') + 1);
        std::cerr << programName() << ": " << file << ": " << text << '\n';
    }

private:
    std::string const file;
};

void printDescription(Utils::XmlHelper& xml, std::stringstream const& document)
{
    std::string const device = "/upnp:root/upnp:device";
    std::cout << "Friendly name: " << xml.singleNodeText(document, device + "/upnp:friendlyName") << '\n';
    std::cout << "Model:         " << xml.singleNodeText(document, device + "/upnp:modelName");
    for (std::string const& number : xml.nodesText(document, device + "/upnp:modelNumber"))
    {
        std::cout << ' ' << number;
    }
    std::cout << "\nServices:\n";
    auto const ids = xml.nodesText(document, "//upnp:service/upnp:serviceId");
    auto const types = xml.nodesText(document, "//upnp:service/upnp:serviceType");
    for (std::size_t i = 0; i < ids.size(); ++i) // a valid service has one of both
    {
        std::cout << "    " << ids.at(i) << "\n        " << types.at(i) << '\n';
    }
}

/// The expression is the user's: it may select no nodes but be a number.
void printTexts(Utils::XmlHelper& xml, std::stringstream const& document, std::string const& xpath)
{
    try
    {
        for (std::string const& text : xml.nodesText(document, xpath))
        {
            std::cout << text << '\n';
        }
    }
    // A pointer, see XmlHelper::nodesText. NOLINTNEXTLINE(misc-throw-by-value-catch-by-reference,cert-err*)
    catch (std::runtime_error* error)
    {
        std::unique_ptr<std::runtime_error> const owner(error);
        throw std::runtime_error("'" + xpath + "' selects no nodes: " + owner->what());
    }
}

int describe(std::string const& file, std::string const& xpath)
{
    Log::LoggerProxy::instance().setSink(std::make_shared<FaultPrinter>(file));
    requireReadable(file);
    try
    {
        std::stringstream const document(Utils::fileToString(file));
        Utils::XmlHelper xml;
        xml.validateAgainstXSD(document, DEVICE_DESCRIPTION_XSD);
        if (xpath.empty())
        {
            printDescription(xml, document);
        }
        else
        {
            printTexts(xml, document, xpath);
        }
    }
    catch (std::exception const& error)
    {
        throw std::runtime_error(file + ": " + faultOf(error));
    }
    return 0;
}

}

int main(int argc, char** argv) // NOLINT(bugprone-exception-escape): may end the program
{
    Program program("Checks a UPnP device description and prints name, model and services: status 0, or 1 when it is "
                    "not valid or cannot be read.");
    std::string file = DEVICE_DESCRIPTION_XML;
    std::string xpath;
    program.option("FILE", file, "The description; without it, the one of this example");
    program.option("--xpath", xpath, "Print the texts of the nodes that this selects instead; upnp: is the prefix")
        .placeholder("EXPRESSION");
    return program.run(argc, argv, [&] { return describe(file, xpath); });
}
