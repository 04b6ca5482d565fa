#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <stdexcept>

namespace Halden::Tavro::TestSupport
{

/// A copy of some bytes right in front of a page that nobody can read.
class Fenced
{
public:
    Fenced(void const* bytes, std::size_t size)
        : pages(mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))
    {
        if (pages == MAP_FAILED || size > page || mprotect(end(), page, PROT_NONE) != 0)
        {
            throw std::runtime_error("no fence");
        }
        first = end() - size;
        std::memcpy(first, bytes, size);
    }

    ~Fenced() { munmap(pages, 2 * page); }

    Fenced(Fenced const&) = delete;
    Fenced& operator=(Fenced const&) = delete;

    /// The copy, which has any alignment.
    template <typename Structure>
    Structure const* as() const
    {
        return reinterpret_cast<Structure const*>(first);
    }

private:
    char* end() const { return static_cast<char*>(pages) + page; }

    std::size_t const page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    void* pages;
    char* first{nullptr};
};

}
