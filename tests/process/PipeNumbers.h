#pragma once

#include <utils/Pipe.h>

#include <cstring>
#include <type_traits>

namespace Halden::Tavro::TestSupport
{

/// The fields of a Pipe, in their order.
struct PipeNumbers
{
    int read;
    int write;
};

static_assert(std::is_standard_layout_v<Utils::Pipe> && sizeof(Utils::Pipe) == sizeof(PipeNumbers));

inline PipeNumbers numbersOf(Utils::Pipe const& pipe)
{
    PipeNumbers numbers{};
    std::memcpy(&numbers, &pipe, sizeof(numbers));
    return numbers;
}

}
