#pragma once

#include <string>
#include <vector>

namespace Halden::Tavro::TestSupport
{

/// What libxml2 itself says of a document that it validates, message by message: its words differ between versions.
///
/// For test programs that list files/LibXmlFaults.cpp among their sources.
std::vector<std::string> libXmlFaults(std::string const& document, std::string const& xsdPath);

}
