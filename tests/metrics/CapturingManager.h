#pragma once

#include <utils/PeriodicCallerManager.h>

#include <functional>
#include <memory>
#include <utility>

namespace Halden::Tavro::TestSupport
{

/// A manager that leaves the calls to the test, and keeps the function when its token is gone.
class CapturingManager : public Utils::PeriodicCallerManagerIfc
{
public:
    std::unique_ptr<Utils::PeriodicCallerManagerTokenIfc> add(std::function<void()> added,
                                                              std::chrono::duration<double> /*period*/) override
    {
        function = std::move(added);
        return std::make_unique<Utils::PeriodicCallerManagerTokenIfc>();
    }

    std::function<void()> function;
};

}
