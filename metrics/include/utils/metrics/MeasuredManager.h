#pragma once

#include <utils/PeriodicCallerManager.h>
#include <utils/metrics/Export.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace prometheus
{

class Registry;

}

/// Figures of a running service, for Prometheus.
namespace Halden::Tavro::Utils::Metrics
{

/// A manager whose functions have names, and which counts and times their runs for Prometheus.
///
///     auto const registry = std::make_shared<prometheus::Registry>();
///     auto const manager = std::make_shared<PeriodicCallerManager>(
///         PeriodicCallerManager::ExecutionStrategy::Sequential, "sensors");
///     MeasuredManager measured(manager, registry);
///     auto const token = measured.add("pressure", [&] { readPressure(); }, 250ms);
///     SystemTimeHandler systemTime(measured.named("clock"));
///     systemTime.initialize();
///
/// For each function the registry gets these, with the function's name as the label "function":
///
/// | Metric                          | Kind      | What                                                        |
/// |---------------------------------|-----------|-------------------------------------------------------------|
/// | PREFIX_runs_total               | counter   | calls that have ended, the failed ones included             |
/// | PREFIX_failures_total           | counter   | those that ended by an exception                            |
/// | PREFIX_lateness_seconds         | histogram | from due to started, 0.1 ms to 10 s                         |
/// | PREFIX_run_time_seconds         | histogram | from start to end, 0.1 ms to 10 s                           |
/// | PREFIX_running_since_timestamp_seconds | gauge | the start of the present call as Unix time, else 0       |
///
/// A function that is stuck shows in the last one, as time() - PREFIX_running_since_timestamp_seconds where that is not
/// 0. A clock that is set during the call falsifies it. The figures stay when a function is removed, and go on when its
/// name is added again.
///
/// Everything else is as with the manager beneath, which also logs what a function throws. A run costs some 200 ns more
/// on a PC, and no allocation.
///
/// Threads: everything may be called from any thread. A copy is the same manager once more. Manager and registry live
/// at least as long as the last token.
class HALDEN_CPPUTILS_METRICS_EXPORT MeasuredManager
{
public:
    /// Tells the time that the manager beneath goes by.
    using Clock = std::function<std::chrono::steady_clock::time_point()>;

    /// Measures the functions that are added through it.
    ///
    /// @param manager  calls the functions; not null
    /// @param registry gets the figures; not null
    /// @param prefix   of the names of the metrics
    /// @param clock    empty for the steady clock
    /// @throws std::invalid_argument when manager or registry is null, when Prometheus refuses the prefix, or when the
    ///                               registry has such a metric of another kind
    MeasuredManager(std::shared_ptr<PeriodicCallerManagerIfc> manager, std::shared_ptr<prometheus::Registry> registry,
                    std::string const& prefix = "periodic_function", Clock clock = {});

    /// As PeriodicCallerManagerIfc::add(), with all that the manager beneath throws.
    ///
    /// @param name     any UTF-8 text
    /// @param function as there
    /// @param period   as there
    /// @throws std::invalid_argument when the name is empty or no UTF-8, which Prometheus refuses, while there is a
    ///                               function of that name, or when the registry has figures of one from elsewhere
    [[nodiscard]] std::unique_ptr<PeriodicCallerManagerTokenIfc>
    add(std::string const& name, std::function<void()> function, std::chrono::duration<double> period);

    /// A manager for code that adds its function without a name: the function gets this one. When that code adds a
    /// second function before it has removed the first, add() throws.
    ///
    /// @throws std::invalid_argument as add() for the name
    std::shared_ptr<PeriodicCallerManagerIfc> named(std::string name) const;

private:
    class Book;
    class TakenName;
    class Measured;
    class Token;
    class Named;

    std::shared_ptr<PeriodicCallerManagerIfc> manager;
    std::shared_ptr<Book> book;
};

}
