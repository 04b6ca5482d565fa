#include "files/NameTemplate.h"

#include <filesystem>
#include <sstream>

namespace Halden::Tavro::Utils
{

std::string nameTemplate(std::string const& directory, std::string const& prefix, std::string const& suffix)
{
    auto const path = std::filesystem::path(directory) / prefix;
    std::ostringstream text;
    text << path.string() << "XXXXXX" << suffix; // the path itself would be written in quotes
    return text.str();
}

}
