// Gives figures and functions any names, and reads them back out of what Prometheus gets.
//
// Input: the prefix of the figures and up to four names of functions, each with its length in a byte before it.

#include <utils/metrics/MeasuredManager.h>

#include "fuzz/Fuzz.h"

#include <prometheus/registry.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace Halden::Tavro::Utils::Metrics
{

namespace
{

using namespace TestSupport;

/// Takes every function and calls none.
class IdleManager : public PeriodicCallerManagerIfc
{
public:
    std::unique_ptr<PeriodicCallerManagerTokenIfc> add(std::function<void()> /*function*/,
                                                       std::chrono::duration<double> /*period*/) override
    {
        return std::make_unique<Token>();
    }

private:
    class Token : public PeriodicCallerManagerTokenIfc
    {
    };
};

/// As the language of Prometheus has it; names that begin with two underscores, the one behind the prefix included, are
/// its own.
bool isPrefix(std::string const& text)
{
    auto const isLetter = [](char letter)
    { return (letter >= 'a' && letter <= 'z') || (letter >= 'A' && letter <= 'Z') || letter == '_' || letter == ':'; };
    auto const isUsable = [&](char letter) { return isLetter(letter) || (letter >= '0' && letter <= '9'); };
    return !text.empty() && isLetter(text[0]) && std::all_of(text.begin(), text.end(), isUsable) &&
           (text + "_").rfind("__", 0) != 0;
}

std::string encoded(char32_t character)
{
    auto const byte = [](char32_t bits) { return static_cast<char>(static_cast<unsigned char>(bits)); };
    auto const further = [&](unsigned shift) { return byte(0x80U | ((character >> shift) & 0x3fU)); };
    if (character < 0x80)
    {
        return {byte(character)};
    }
    if (character < 0x800)
    {
        return {byte(0xc0U | (character >> 6U)), further(0)};
    }
    if (character < 0x10000)
    {
        return {byte(0xe0U | (character >> 12U)), further(6), further(0)};
    }
    return {byte(0xf0U | (character >> 18U)), further(12), further(6), further(0)};
}

/// Decodes loosely, and sees whether the same bytes come out when that is encoded again.
bool isUtf8(std::string const& text)
{
    for (std::size_t at = 0; at < text.size();)
    {
        auto const lead = static_cast<unsigned char>(text[at]);
        std::size_t const length = lead < 0x80 ? 1 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
        char32_t character = length == 1 ? lead : lead & (0x7fU >> length);
        for (std::size_t i = 1; i < length; ++i)
        {
            unsigned const next = at + i < text.size() ? static_cast<unsigned char>(text[at + i]) : 0;
            character = (character << 6U) | (next & 0x3fU);
        }
        bool const isCharacter = character <= 0x10ffff && (character < 0xd800 || character > 0xdfff);
        if (!isCharacter || text.compare(at, length, encoded(character)) != 0)
        {
            return false;
        }
        at += length;
    }
    return true;
}

template <typename Function>
bool isRefused(Function const& function)
{
    try
    {
        function();
        return false;
    }
    catch (std::invalid_argument const&)
    {
        return true;
    }
}

/// Every figure has the name of its function, and each function has one of each.
void checkFigures(prometheus::Registry const& registry, std::string const& prefix, std::set<std::string> const& names)
{
    auto const families = registry.Collect();
    require(families.size() == (names.empty() ? 0 : 5));
    for (auto const& family : families)
    {
        require(family.name.rfind(prefix + "_", 0) == 0);
        std::multiset<std::string> found;
        for (auto const& metric : family.metric)
        {
            require(metric.label.size() == 1 && metric.label[0].name == "function");
            found.insert(metric.label[0].value);
        }
        require(std::equal(found.begin(), found.end(), names.begin(), names.end()));
    }
}

}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    FuzzInput input(data, size);
    std::string const prefix = input.text(input.byte());
    auto const registry = std::make_shared<prometheus::Registry>();
    auto const make = [&] { return MeasuredManager(std::make_shared<IdleManager>(), registry, prefix); };
    require(isRefused([&] { static_cast<void>(make()); }) == !isPrefix(prefix));
    if (!isPrefix(prefix))
    {
        return 0;
    }

    MeasuredManager sut = make(); // the same figures once more
    std::set<std::string> names;
    std::vector<std::unique_ptr<PeriodicCallerManagerTokenIfc>> tokens;
    for (int i = 0; i < 4; ++i)
    {
        std::string const name = input.text(input.byte());
        bool const isUsable = !name.empty() && isUtf8(name);
        require(isRefused([&] { static_cast<void>(sut.named(name)); }) == !isUsable);
        bool const isRefusedNow = isRefused(
            [&]
            {
                tokens.push_back(sut.add(
                    name, [] {}, std::chrono::seconds(1)));
            });
        bool const isNew = isUsable && names.insert(name).second;
        require(isRefusedNow == !isNew);
    }
    checkFigures(*registry, prefix, names);
    return 0;
}

}
