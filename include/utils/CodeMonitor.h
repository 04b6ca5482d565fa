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
    /// What the value is.
    enum class Type : std::uint32_t
    {
        None = 0,   ///< nothing
        Uint64 = 1, ///< a number
        Pointer = 2 ///< a pointer
    };

    /// The value, as the one or the other.
    union Value
    {
        unsigned long long uint64; ///< the number
        void* pointer;             ///< the pointer
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
/// Threads: one controller and one monitored thread. No lock guards the arguments, only their order in time: the
/// monitored code sets them before it crosses, and the controller reads them while it holds it. So the controller must
/// not close the barrier while the monitored code sets arguments; and a released monitored code may set arguments only
/// when the controller no longer reads them. The monitor outlives every crossing.
///
/// Hazards of the exact build:
/// - A released thread may not have noticed the opening when the barrier is closed again. It is then held without
///   counting as trapped, until the next opening. So close again only after the released crossBarrier() has returned.
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
    /// The opening is noticed at once, or within 50 ms in the rare case that its notification is missed.
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

    /// Controller: waits for a thread to be trapped, by looking 50 times.
    ///
    /// Each look is followed by a pause of a fiftieth of the time-out in whole milliseconds: 99 ms are over after 50,
    /// and below 50 ms there are no pauses. Nobody looks after the last pause.
    ///
    /// @return whether a look has found one
    bool waitTrapped(std::chrono::milliseconds const& timeout);

    /// Monitored code: publishes a value in place of an earlier one of that name.
    ///
    /// A literal zero must say what it is, 0ULL or nullptr.
    void setArgument(std::string const& argument, RuntimeTypedData value);

    /// The same for a number.
    void setArgument(std::string const& argument, unsigned long long value);

    /// The same for a pointer.
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
