#pragma once

#include <unistd.h>

#include <utility>

namespace Halden::Tavro::Utils
{

/// Owns a descriptor, or none.
class Descriptor
{
public:
    Descriptor() = default;

    /// @param number -1 for none
    explicit Descriptor(int number)
        : number(number)
    {
    }

    Descriptor(Descriptor const&) = delete;
    Descriptor& operator=(Descriptor const&) = delete;

    ~Descriptor() { close(); }

    void close()
    {
        if (number != -1)
        {
            ::close(std::exchange(number, -1));
        }
    }

    bool isOpen() const { return number != -1; }

    /// -1 for none, which poll(2) passes over.
    int get() const { return number; }

private:
    int number{-1};
};

}
