#pragma once

#include "files/WorkingDirectory.h"
#include "support/FailingCalls.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace Halden::Tavro::TestSupport
{

/// What constructions of a temporary file or directory leave when one of these calls fails. Its destructor runs when
/// none does.
///
/// @param arguments the constructor's before the last one, which is where it is made
template <typename Temporary, typename... Arguments>
std::vector<std::string> leftByConstructions(std::vector<FailingCalls> const& failures, WorkingDirectory const& where,
                                             Arguments const&... arguments)
{
    std::optional<Temporary> sut;
    auto const destroy = [&]() -> std::string
    {
        sut.reset();
        std::string left;
        for (auto const& entry : std::filesystem::directory_iterator(where.path()))
        {
            left = entry.is_directory() ? "a directory" : "a file";
            std::filesystem::remove(entry.path());
        }
        return left;
    };
    return leftByFailingCalls(
        failures, [&] { sut.emplace(arguments..., where.path()); }, destroy);
}

}
