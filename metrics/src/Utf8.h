#pragma once

#include <string_view>

namespace Halden::Tavro::Utils::Metrics
{

/// Whether the text is well-formed UTF-8: in the shortest form, without surrogates, up to U+10FFFF.
bool isUtf8(std::string_view text);

}
