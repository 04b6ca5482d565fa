#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace Halden::Tavro::TestSupport
{

/// Tests that are skipped where the given function tells why they cannot be run.
template <std::optional<std::string> (*refusal)()>
class SkippedWhere : public testing::Test
{
protected:
    void SetUp() override
    {
        if (auto const reason = refusal())
        {
            GTEST_SKIP() << *reason;
        }
    }
};

}
