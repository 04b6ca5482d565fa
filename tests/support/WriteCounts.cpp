// Loaded ahead of the C library where coverage is measured: no process under test ends without having written down what
// has run in it.
//
// An instrumented library does so by itself where a process goes through exit(3). Here are the other ways out. A test's
// double of one of them is called first, and finds this one where it passes on.

#include <dlfcn.h>
#include <link.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

namespace Halden::Tavro::TestSupport
{

/// Of process/ExecuteFixture.h, in programs that have it: its doubles tell all that is closed.
extern std::atomic<bool> underTest __attribute__((weak));

}

namespace
{

using Halden::Tavro::TestSupport::underTest;

/// What comes after this file. Not that of the doubles: the program's own copy of it would be taken, which finds this
/// file.
template <typename Function>
Function next(char const* name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

struct Counts
{
    void (*write)();
    void (*reset)();
};

int addName(dl_phdr_info* library, std::size_t /*size*/, void* names)
{
    static_cast<std::vector<std::string>*>(names)->push_back(library->dlpi_name);
    return 0;
}

/// The counts of the program and its libraries.
std::vector<Counts> findCounts()
{
    std::vector<std::string> names;
    dl_iterate_phdr(addName, &names);
    std::vector<Counts> found;
    for (auto const& name : names)
    {
        void* const library = dlopen(name.empty() ? nullptr : name.c_str(), RTLD_LAZY | RTLD_NOLOAD);
        if (library == nullptr)
        {
            continue;
        }
        // One that has no counts gives those of a library it needs.
        Counts const counts{reinterpret_cast<void (*)()>(dlsym(library, "__gcov_dump")),
                            reinterpret_cast<void (*)()>(dlsym(library, "__gcov_reset"))};
        auto const isSame = [&counts](Counts const& other) { return other.write == counts.write; };
        if (counts.write != nullptr && std::none_of(found.begin(), found.end(), isSame))
        {
            found.push_back(counts);
        }
        dlclose(library);
    }
    return found;
}

// Made when the program starts: later a lock may be held, or the process be in a signal handler.
std::vector<Counts> const& allCounts = *new std::vector<Counts>(findCounts());

pid_t owner = getpid(); // of this memory
int const watchesForks = pthread_atfork(nullptr, nullptr, [] { owner = getpid(); });

void writeCounts()
{
    // What runs in its parent's memory counts there.
    if (getpid() != owner)
    {
        return;
    }
    int const error = errno;
    bool const wasUnderTest = &underTest != nullptr && underTest.exchange(false);
    for (auto const& counts : allCounts)
    {
        counts.write();
        counts.reset(); // else nothing more would be written, should the process go on
    }
    if (wasUnderTest)
    {
        underTest = true;
    }
    errno = error;
}

}

extern "C"
{
    int execv(char const* path, char* const* arguments) noexcept
    {
        writeCounts();
        return next<decltype(&execv)>("execv")(path, arguments);
    }

    void _exit(int code)
    {
        writeCounts();
        next<decltype(&_exit)>("_exit")(code);
        __builtin_unreachable();
    }

    void abort() noexcept
    {
        writeCounts();
        next<decltype(&abort)>("abort")();
        __builtin_unreachable();
    }

    void __chk_fail()
    {
        writeCounts();
        next<void (*)()>("__chk_fail")();
        __builtin_unreachable();
    }
}
