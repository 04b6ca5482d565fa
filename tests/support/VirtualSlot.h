#pragma once

#include <cstddef>
#include <cstring>
#include <type_traits>

namespace Halden::Tavro::TestSupport
{

/// The slot of a virtual operation in the table of its class, counted from 0.
///
/// Callers built apart from the library reach an operation by this number alone, so it is part of the interface. A
/// virtual destructor takes two slots. Under the Itanium C++ ABI a pointer to a member function is a pair of words, the
/// first of which holds the byte offset of the operation's slot in the table. What tells it from the address of an
/// operation that is not virtual is the lowest bit: of the first word, added to the offset, on most processors; of the
/// second word on ARM, where addresses of functions use that bit themselves.
///
/// @return -1 for an operation that is not virtual
template <typename Operation>
std::ptrdiff_t virtualSlot(Operation operation)
{
    static_assert(std::is_member_function_pointer_v<Operation>);
    struct Representation
    {
        std::ptrdiff_t pointer;
        std::ptrdiff_t adjustment;
    };
    static_assert(sizeof(Representation) == sizeof(Operation));

    Representation words{};
    std::memcpy(&words, &operation, sizeof(words));
#if defined(__arm__) || defined(__aarch64__)
    bool const isVirtual = (words.adjustment & 1) != 0;
    std::ptrdiff_t const offset = words.pointer;
#else
    bool const isVirtual = (words.pointer & 1) != 0;
    std::ptrdiff_t const offset = words.pointer - 1;
#endif
    return isVirtual ? offset / static_cast<std::ptrdiff_t>(sizeof(void*)) : -1;
}

}
