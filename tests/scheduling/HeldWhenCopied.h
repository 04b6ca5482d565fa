#pragma once

#include "scheduling/HeldCall.h"

namespace Halden::Tavro::TestSupport
{

/// A function that does nothing but stay inside its first copy until the test lets it go. A manager copies each
/// function that is added, and has its list locked meanwhile.
class HeldWhenCopied
{
public:
    explicit HeldWhenCopied(HeldCall& copying)
        : copying(copying)
    {
    }
    HeldWhenCopied(HeldWhenCopied const& other)
        : copying(other.copying)
    {
        copying();
    }
    HeldWhenCopied(HeldWhenCopied&& other) noexcept
        : copying(other.copying)
    {
    }
    HeldWhenCopied& operator=(HeldWhenCopied const&) = delete;
    ~HeldWhenCopied() = default;

    void operator()() const {}

private:
    HeldCall& copying;
};

}
