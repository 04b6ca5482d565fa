#pragma once

namespace Halden::Tavro::TestSupport
{

/// A function that does nothing but count how often it is copied.
class CountsCopies
{
public:
    explicit CountsCopies(int& copies)
        : copies(copies)
    {
    }
    CountsCopies(CountsCopies const& other)
        : copies(other.copies)
    {
        ++copies;
    }
    CountsCopies& operator=(CountsCopies const&) = delete;
    ~CountsCopies() = default;

    void operator()() const {}

private:
    int& copies;
};

}
