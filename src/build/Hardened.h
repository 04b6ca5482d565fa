#pragma once

namespace Halden::Tavro::Utils
{

/// Which of the two builds this is: the exact one, hazards included, or the one without them, see docs/builds.md.
inline constexpr bool hardened = HALDEN_HARDENED != 0;

}
