#pragma once

#include <string>

namespace Halden::Tavro::Utils
{

/// What mkdtemp(3) and mkstemps(3) turn into a unique name: six characters X stand between prefix and suffix.
std::string nameTemplate(std::string const& directory, std::string const& prefix, std::string const& suffix);

}
