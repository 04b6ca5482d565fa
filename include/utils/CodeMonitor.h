#pragma once

#include <utils/Export.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

namespace Halden::Tavro::Utils
{

/// An unsigned number or a pointer, and which of the two it is.
struct RuntimeTypedData
{
    enum class Type : std::uint32_t
    {
        None = 0,
        Uint64 = 1,
        Pointer = 2
    };

    union Value
    {
        unsigned long long uint64;
        void* pointer;
    };

    Value value{};         ///< zero in an empty value
    Type type{Type::None}; ///< tells which member of the value is valid
};

/// Lets one thread, the controller, hold another one, the monitored code, at a chosen point and look at its values.
///
///     monitor.setArgument("sum", sum);       // monitored code, at the point of interest
///     monitor.crossBarrier();
///
///     monitor.closeBarrier();                // controller, before the monitored code gets there
///     if (monitor.waitTrapped(1000ms))
///     {
///         auto const sum = monitor.getArgument("sum").value.uint64;
///     }
///     monitor.openBarrier();
///
/// Threads: one controller and one monitored thread. The arguments are guarded by no lock but by their order: the
/// monitored code sets them before it crosses, the controller reads them while it is held. So the controller closes
/// only while the monitored code is not setting arguments; and once the monitored code has been released, it may set
/// arguments only when the controller reads them no more. The monitor outlives every crossing.
///
/// Hazards of the exact build:
/// The controller also lets a released crossBarrier() return before it closes again. Otherwise the monitored code may
/// not have noticed the opening: it then stays held without counting as trapped, until the next opening.
class HALDEN_CPPUTILS_EXPORT CodeMonitor
{
public:
    /// @throws std::invalid_argument "Name can't be empty"
    explicit CodeMonitor(std::string name);

    CodeMonitor(CodeMonitor const&) = delete;
    CodeMonitor& operator=(CodeMonitor const&) = delete;

    /// Controller: from now on crossBarrier() blocks. Forgets all arguments.
    ///
    /// @throws std::runtime_error "Barrier already closed"
    void closeBarrier();

    /// Monitored code: blocks while the barrier is closed. When it is open this costs one atomic read.
    ///
    /// The opening is noticed at once, or in the rare case that its notification is missed, within 50 ms.
    ///
    /// @return whether the barrier was closed
    bool crossBarrier() { return closed && waitForRelease(); }

    /// Controller: lets the monitored code go on. The arguments stay until the barrier is closed again.
    ///
    /// @return whether a thread was trapped
    /// @throws std::runtime_error "Barrier is not closed"
    bool openBarrier();

    /// @return whether a thread has reached the closed barrier
    bool trappedAtBarrier();

    /// Controller: looks 50 times whether a thread is trapped, with a fiftieth of the time-out between the looks, in
    /// whole milliseconds: 99 ms are over after 50. Below 50 ms the looks follow one another at once. The last pause is
    /// followed by no look.
    bool waitTrapped(std::chrono::milliseconds const& timeout);

    /// Monitored code: publishes a value in place of an earlier one of that name.
    ///
    /// A literal zero must say what it is, 0ULL or nullptr.
    void setArgument(std::string const& argument, RuntimeTypedData value);
    void setArgument(std::string const& argument, unsigned long long value);
    void setArgument(std::string const& argument, void* value);

    /// Controller: the value itself, valid until the barrier is closed again.
    ///
    /// @throws std::out_of_range "No argument with name '...'"
    RuntimeTypedData& getArgument(std::string const& argument);

private:
    bool waitForRelease();

    std::string const name;
    std::mutex mutex; // held by a crossing thread unless it waits; guards no field
    std::condition_variable released;
    std::atomic<bool> closed{false};
    std::atomic<bool> trapped{false};
    std::map<std::string, RuntimeTypedData> arguments; // no lock, see the class comment
};

}
