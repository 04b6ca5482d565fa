#pragma once

#include <dlfcn.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <ctime>
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
    // Where time_t is wider than a word, the headers give the functions that take a time, an offset or a file status
    // other names, in one of these forms.
    if constexpr (sizeof(std::time_t) > sizeof(long))
    {
        for (std::string const& wide : {"__" + name + "_time64", "___" + name + "64", "__" + name + "64", name + "64"})
        {
            if (void* const symbol = dlsym(RTLD_NEXT, wide.c_str()))
            {
                return symbol;
            }
        }
    }
    return dlsym(RTLD_NEXT, name.c_str());
}

/// The same as a pointer to a function.
template <typename Function>
Function systemFunction(char const* name)
{
    return reinterpret_cast<Function>(systemSymbol(name));
}

/// How many doubles the calling thread is in. What they allocate never fails, see NewDouble.h.
inline thread_local int doublesAtWork = 0;

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
/// Some functions have several names: those are defined by HALDEN_DOUBLE, see below.
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
    template <typename Answer>
    void failCall(std::size_t n, Answer result, int error)
    {
        State& present = state();
        std::lock_guard const lock(present.mutex);
        present.failures[n] = {false, answerOf(result, error)};
    }

    /// The same for a call that does its work first, as close(2) does.
    template <typename Answer>
    void failCallOnceDone(std::size_t n, Answer result, int error)
    {
        State& present = state();
        std::lock_guard const lock(present.mutex);
        present.failures[n] = {true, answerOf(result, error)};
    }

    /// Lets no call fail any more that has not been made.
    ///
    /// @return whether every one that was to fail has been made
    bool takeBackFailures()
    {
        State& present = state();
        std::lock_guard const lock(present.mutex);
        bool const allMade = present.failures.empty() || present.failures.rbegin()->first <= present.recorded.size();
        present.failures.clear();
        return allMade;
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
        AtWork const atWork;
        std::function<Result(Arguments...)> answer;
        std::function<Result()> failureOnceDone;
        {
            State& present = state();
            std::lock_guard const lock(present.mutex);
            present.recorded.emplace_back(arguments...);
            auto const failure = present.failures.find(present.recorded.size());
            if (failure != present.failures.end() && !failure->second.isOnceDone)
            {
                return failure->second.answer();
            }
            if (failure != present.failures.end())
            {
                failureOnceDone = failure->second.answer;
            }
            answer = present.replacement;
        }
        auto const work = [&] { return answer ? answer(arguments...) : passOn(arguments...); };
        if (failureOnceDone)
        {
            static_cast<void>(work());
            return failureOnceDone();
        }
        return work();
    }

    /// Calls the system's function.
    Result passOn(Arguments... arguments) const { return systemFunction<Result (*)(Arguments...)>(name)(arguments...); }

private:
    struct AtWork
    {
        AtWork() { ++doublesAtWork; }
        ~AtWork() { --doublesAtWork; }
        AtWork(AtWork const&) = delete;
        AtWork& operator=(AtWork const&) = delete;
    };

    struct Failure
    {
        bool isOnceDone{false};
        std::function<Result()> answer;
    };

    template <typename Answer>
    static std::function<Result()> answerOf(Answer result, int error)
    {
        return [result, error]() -> Result
        {
            errno = error;
            return result;
        };
    }

    struct State
    {
        State() { recorded.reserve(64); } // so that a test that counts blocks seldom sees the first call

        std::mutex mutex;
        std::vector<std::tuple<Arguments...>> recorded;  // guarded by mutex
        std::map<std::size_t, Failure> failures;         // guarded by mutex
        std::function<Result(Arguments...)> replacement; // guarded by mutex
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

/// Lets a function of the test stand in for a function of the system that has more than one name.
///
/// Headers and compiler settings choose the name by which a call gets into the object file: open() becomes open64()
/// where offsets have 64 bits, ioctl() becomes __ioctl_time64() where time_t has got 64 bits. They chose it for the
/// library under test, for this program and, long before, for the C++ library; a double that has one name alone may
/// never be called. So the function of the test gets a name that is only its own, and each of the system's by this:
///
///     extern "C" int openOfTest(char const* path, int flags, mode_t mode) { return openDouble(path, flags, mode); }
///     HALDEN_DOUBLE(open, openOfTest)
///
/// As no header knows that name, the function of the test lists the arguments that the system's takes as variable ones:
/// whole numbers and pointers come alike either way, and mean nothing where the caller gave none.
///
/// Below stand all the functions that need it, each with the names of one signature. A name in 64 stands for both where
/// a word has 64 bits, and for the wide one alone where it has not.
#define HALDEN_DOUBLE(name, function) HALDEN_DOUBLE_##name(function)

#define HALDEN_DOUBLE_fcntl(function)                                                                                  \
    HALDEN_NAME(function, fcntl) HALDEN_NAME(function, fcntl64) HALDEN_NAME(function, __fcntl_time64)
#define HALDEN_DOUBLE_fopen64(function) HALDEN_NAME(function, fopen) HALDEN_NAME(function, fopen64)
#define HALDEN_DOUBLE_ioctl(function) HALDEN_NAME(function, ioctl) HALDEN_NAME(function, __ioctl_time64)
#define HALDEN_DOUBLE_mkstemps(function) HALDEN_NAME(function, mkstemps) HALDEN_NAME(function, mkstemps64)
#define HALDEN_DOUBLE_open(function) HALDEN_NAME(function, open) HALDEN_NAME(function, open64)
#define HALDEN_DOUBLE_syscall(function) HALDEN_NAME(function, syscall)
#ifdef __LP64__
#define HALDEN_DOUBLE_clock_gettime(function) HALDEN_NAME(function, clock_gettime)
#define HALDEN_DOUBLE_lseek64(function) HALDEN_NAME(function, lseek) HALDEN_NAME(function, lseek64)
#define HALDEN_DOUBLE_stat64(function) HALDEN_NAME(function, stat) HALDEN_NAME(function, stat64)
#else
#define HALDEN_DOUBLE_lseek64(function) HALDEN_NAME(function, lseek64)
#ifdef __USE_TIME_BITS64
#define HALDEN_DOUBLE_clock_gettime(function) HALDEN_NAME(function, __clock_gettime64)
#define HALDEN_DOUBLE_stat64(function) HALDEN_NAME(function, __stat64_time64)
#else
#define HALDEN_DOUBLE_clock_gettime(function) HALDEN_NAME(function, clock_gettime)
#define HALDEN_DOUBLE_stat64(function) HALDEN_NAME(function, stat64)
#endif
#endif

/// One further name of a function with C linkage that this file defines.
#define HALDEN_NAME(function, name)                                                                                    \
    extern "C"                                                                                                         \
        __attribute__((alias(#function), visibility("default"))) decltype(function) function##As_##name asm(#name);
