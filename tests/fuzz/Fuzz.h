#pragma once

#include <utils/Pipe.h>

#include "process/PipeNumbers.h"

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <string>

namespace Halden::Tavro::TestSupport
{

/// What a fuzzer expects: without it, the process ends, and the input that has led there is reported.
inline void require(bool condition)
{
    if (!condition)
    {
        std::abort();
    }
}

/// Which build of the library this program runs with. A Pipe keeps the number of an end that it has closed in the exact
/// one.
inline bool isHardened()
{
    static bool const hardened = []
    {
        Utils::Pipe pipe;
        pipe.close(Utils::Pipe::End::Read);
        return numbersOf(pipe).read == -1;
    }();
    return hardened;
}

/// The number that the next file gets, which a descriptor that was left open raises.
inline int lowestFreeNumber()
{
    int const number = dup(STDERR_FILENO);
    close(number);
    return number;
}

/// Deals out an input; once it is used up, zeros and empty texts.
class FuzzInput
{
public:
    FuzzInput(std::uint8_t const* data, std::size_t size)
        : next(data)
        , end(std::next(data, static_cast<std::ptrdiff_t>(size)))
    {
    }

    std::uint8_t byte() { return next == end ? std::uint8_t{0} : *next++; }

    bool flag() { return (byte() & 1U) != 0; }

    std::string text(std::size_t atMost)
    {
        auto const size = std::min(atMost, static_cast<std::size_t>(end - next));
        std::string dealt(reinterpret_cast<char const*>(next), size);
        next += size;
        return dealt;
    }

    std::string rest() { return text(static_cast<std::size_t>(end - next)); }

private:
    std::uint8_t const* next;
    std::uint8_t const* const end;
};

}
