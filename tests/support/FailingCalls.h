#pragma once

#include "support/CallDouble.h"
#include "support/NewDouble.h"

#include <cstddef>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace Halden::Tavro::TestSupport
{

/// One kind of call that an operation makes, any of which can be made to fail.
struct FailingCalls
{
    std::string name;
    std::function<void(std::size_t)> fail; ///< lets the n-th call from now on fail, counted from 1
    std::function<bool()> stop;            ///< lets none fail any more, and tells whether one has
};

/// The calls of a double, which fail with that result and errno.
template <typename Result, typename... Arguments, typename Answer>
FailingCalls callsOf(std::string name, CallDouble<Result(Arguments...)>& callDouble, Answer result, int error)
{
    return {std::move(name),
            [&callDouble, result, error](std::size_t n) { callDouble.failCall(callDouble.count() + n, result, error); },
            [&callDouble] { return callDouble.takeBackFailures(); }};
}

/// The same for calls that do their work first. So close(2) fails: a number that were closed again might be another
/// thread's by then.
template <typename Result, typename... Arguments, typename Answer>
FailingCalls doneCallsOf(std::string name, CallDouble<Result(Arguments...)>& callDouble, Answer result, int error)
{
    auto calls = callsOf(std::move(name), callDouble, result, error);
    calls.fail = [&callDouble, result, error](std::size_t n)
    { callDouble.failCallOnceDone(callDouble.count() + n, result, error); };
    return calls;
}

/// The allocations of the calling thread. For test programs that list support/NewDouble.cpp among their sources.
inline FailingCalls allocations()
{
    return {"new", [](std::size_t n) { failNextAllocation(AllocationFailure::BadAlloc, n - 1); }, allocationHasFailed};
}

/// Runs an operation with the first of these calls failing, then with the second, and so on, until it makes no further
/// one that could fail; so for each kind. What comes of a failure is the operation's own affair, as long as it throws
/// nothing but a std::exception. Without a failure, before the first one and after each of them, it must succeed: so
/// nothing may be left locked, and an object that outlives the operation must be of use.
///
/// Log calls are all carried out meanwhile, and lead nowhere.
///
/// @param afterwards is called after each run, when nothing fails any more: destroys what the operation leaves to it,
///                   and tells in words what else is left that must not be, or nothing
/// @return what each failing call has left, in order: "open 1: 1 descriptor"
std::vector<std::string> leftByFailingCalls(
    std::vector<FailingCalls> const& kinds, std::function<void()> const& operation,
    std::function<std::string()> const& afterwards = [] { return ""; });

}
