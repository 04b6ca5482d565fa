// Not part of any program: the tests hand this to the compiler with one call after the other.

#include HEADER

#include <chrono>

namespace Halden::Tavro::Utils
{

using namespace std::chrono_literals;

/// An object to call, which is never made.
template <typename Class>
Class& an();

void dropSnippet()
{
    SNIPPET;
}

}
