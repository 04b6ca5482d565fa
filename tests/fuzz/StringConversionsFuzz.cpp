// Reads any text as a number and compares it with what the C library reads, and any two texts with each other.

#include <utils/StringConversions.h>

#include "fuzz/Fuzz.h"
#include "misc/StringConversionsModel.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace Halden::Tavro::Utils
{

using namespace TestSupport;

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    std::string const text = FuzzInput(data, size).rest();
    require(outcomeOf([&] { return to_uint64(text); }) == expectedUint64(text));
    require(outcomeOf([&] { return to_uint8(text); }) == expectedUint8(text));

    auto const middle = text.find('|');
    std::string const first = text.substr(0, middle);
    std::string const second = middle == std::string::npos ? "" : text.substr(middle + 1);
    require(mismatchString(first, second) == expectedMismatch(first, second));
    return 0;
}

}
