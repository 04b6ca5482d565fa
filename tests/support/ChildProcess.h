#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

namespace Halden::Tavro::TestSupport
{

/// How a piece of code ended that ran in a process of its own.
struct ChildResult
{
    std::optional<int> exitCode; ///< what the piece returned
    std::optional<int> signal;   ///< what ended it instead
    bool timedOut{false};        ///< killed by the watchdog, so it had blocked
    std::string output;          ///< its standard output and standard error
};

/// Runs a piece that ends or blocks its process in a child, and kills it when it takes longer than the limit.
///
/// The piece starts with one thread, the default actions of signals and no core dumps. To be called while the test
/// itself runs no other threads.
ChildResult runInChild(std::function<int()> const& piece, std::chrono::milliseconds limit = std::chrono::seconds(20));

}
