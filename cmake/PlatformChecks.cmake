# What a toolchain may get wrong without the compiler ever saying so. Each check ends the configuration with a sentence.

include(CheckCXXSourceCompiles)

block()
set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_REQUIRED_QUIET ON)

# Test doubles stand in for C functions by their names, which this changes; with a 64-bit time_t it cannot be avoided.
check_cxx_source_compiles([[
    #include <cstddef>
    #if defined(_FILE_OFFSET_BITS) && !defined(_TIME_BITS)
    #error
    #endif
    int main() {}
]] HALDEN_FILE_OFFSET_BITS_UNFORCED)
if(NOT HALDEN_FILE_OFFSET_BITS_UNFORCED)
    message(FATAL_ERROR "The compiler flags set _FILE_OFFSET_BITS, which renames C functions. Leave it out, or set _TIME_BITS=64 with it.")
endif()

# Without this function the library waits on the wall clock, and setting the clock delays or hastens all that is due.
check_cxx_source_compiles([[
    #include <condition_variable>
    #if defined(__GLIBCXX__) && !defined(_GLIBCXX_USE_PTHREAD_COND_CLOCKWAIT)
    #error
    #endif
    int main() {}
]] HALDEN_STEADY_CLOCK_WAIT_IS_MONOTONIC)
if(NOT HALDEN_STEADY_CLOCK_WAIT_IS_MONOTONIC)
    message(FATAL_ERROR "This standard library waits for a std::chrono::steady_clock time on the wall clock: it was built without pthread_cond_clockwait (glibc 2.30 has it).")
endif()

# Due times are atomics of 64 bits.
set(atomics_source [[
    #include <atomic>
    #include <cstdint>
    std::atomic<std::int64_t> number{0};
    int main(int count, char**)
    {
        std::int64_t expected = number.load();
        number.store(count);
        return number.compare_exchange_strong(expected, 1) && number.exchange(2) == number.fetch_add(3) ? 0 : 1;
    }
]])
check_cxx_source_compiles("${atomics_source}" HALDEN_ATOMICS_NEED_NO_LIBRARY)
if(NOT HALDEN_ATOMICS_NEED_NO_LIBRARY)
    list(APPEND CMAKE_REQUIRED_LIBRARIES atomic)
    check_cxx_source_compiles("${atomics_source}" HALDEN_ATOMICS_NEED_LIBATOMIC)
    list(REMOVE_ITEM CMAKE_REQUIRED_LIBRARIES atomic)
    if(NOT HALDEN_ATOMICS_NEED_LIBATOMIC)
        message(FATAL_ERROR "Atomics of 64 bits can be had neither from this processor's instructions nor from libatomic.")
    endif()
endif()
endblock()

set(HALDEN_ATOMIC_LIBRARY "")
if(NOT HALDEN_ATOMICS_NEED_NO_LIBRARY)
    set(HALDEN_ATOMIC_LIBRARY -latomic)
endif()
