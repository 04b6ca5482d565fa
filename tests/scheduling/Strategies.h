#pragma once

#include <utils/PeriodicCallerManager.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace Halden::Tavro::TestSupport
{

using Strategy = Utils::PeriodicCallerManager::ExecutionStrategy;
using Token = std::unique_ptr<Utils::PeriodicCallerManagerTokenIfc>;

/// For suites whose tests run with either strategy:
///
///     INSTANTIATE_TEST_SUITE_P(Both, SomeTest, bothStrategies(), nameOfStrategy);
inline auto bothStrategies()
{
    return testing::Values(Strategy::ThreadPool, Strategy::Sequential);
}

inline std::string nameOfStrategy(testing::TestParamInfo<Strategy> const& strategy)
{
    return strategy.param == Strategy::ThreadPool ? "ThreadPool" : "Sequential";
}

}
