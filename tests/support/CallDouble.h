#pragma once

#include <dlfcn.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace Halden::Tavro::TestSupport
{

/// The system's function that a call of that name reaches.
inline void* systemSymbol(std::string const& name)
{
#ifdef __USE_TIME_BITS64
    // The headers give the functions that take a time, an offset or a file status other names, in one of these forms.
    for (std::string const& wide : {"__" + name + "_time64", "___" + name + "64", "__" + name + "64", name + "64"})
    {
        if (void* const symbol = dlsym(RTLD_NEXT, wide.c_str()))
        {
            return symbol;
        }
    }
#endif
    return dlsym(RTLD_NEXT, name.c_str());
}

/// The same as a pointer to a function.
template <typename Function>
Function systemFunction(char const* name)
{
    return reinterpret_cast<Function>(systemSymbol(name));
}

template <typename Signature>
class CallDouble;

/// Stands between the code under test and one C function of the system.
///
/// The test program defines a function of the same name, which the linker prefers to the system's, in the program as in
/// the shared libraries it uses:
///
///     CallDouble<int(int, int)> timerfdCreate{"timerfd_create"};
///     extern "C" int timerfd_create(int clock, int flags) noexcept { return timerfdCreate(clock, flags); }
///
/// By default every call is counted, recorded and passed on. May be used from several threads, and by calls that come
/// before the double's own initialisation or after everything is destroyed: it needs no initialisation and stays.
template <typename Result, typename... Arguments>
class CallDouble<Result(Arguments...)>
{
public:
    constexpr explicit CallDouble(char const* name)
        : name(name)
    {
    }

    /// Forgets calls and instructions. Doubles outlive the tests, so each test begins with it.
    void reset()
    {
        State& present = state();
        std::lock_guard const lock(present.mutex);
        present.recorded.clear();
        present.failures.clear();
        present.replacement = nullptr;
    }

    /// Lets the n-th call from the last reset(), counted from 1, return the result with that errno.
    void failCall(std::size_t n, Result result, int error)
    {
        State& present = state();
        std::lock_guard const lock(present.mutex);
        present.failures[n] = {result, error};
    }

    /// Answers every call that is not meant to fail.
    void replace(std::function<Result(Arguments...)> function)
    {
        State& present = state();
        std::lock_guard const lock(present.mutex);
        present.replacement = std::move(function);
    }

    std::vector<std::tuple<Arguments...>> calls() const
    {
        State& present = state();
        std::lock_guard const lock(present.mutex);
        return present.recorded;
    }

    std::size_t count() const { return calls().size(); }

    Result operator()(Arguments... arguments)
    {
        std::function<Result(Arguments...)> answer;
        {
            State& present = state();
            std::lock_guard const lock(present.mutex);
            present.recorded.emplace_back(arguments...);
            auto const failure = present.failures.find(present.recorded.size());
            if (failure != present.failures.end())
            {
                errno = failure->second.second;
                return failure->second.first;
            }
            answer = present.replacement;
        }
        return answer ? answer(arguments...) : passOn(arguments...);
    }

    /// Calls the system's function.
    Result passOn(Arguments... arguments) const { return systemFunction<Result (*)(Arguments...)>(name)(arguments...); }

private:
    struct State
    {
        std::mutex mutex;
        std::vector<std::tuple<Arguments...>> recorded;         // guarded by mutex
        std::map<std::size_t, std::pair<Result, int>> failures; // guarded by mutex
        std::function<Result(Arguments...)> replacement;        // guarded by mutex
    };

    State& state() const
    {
        State* present = made;
        if (present == nullptr)
        {
            auto* const fresh = new State;
            if (made.compare_exchange_strong(present, fresh))
            {
                return *fresh;
            }
            delete fresh; // another thread was faster
        }
        return *present;
    }

    char const* const name;
    mutable std::atomic<State*> made{nullptr}; // with the first use
};

}
