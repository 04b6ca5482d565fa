#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace Halden::Tavro::TestSupport
{

/// Stands in for the kernel towards LocalIps, for as long as it lives: the socket, its events, the addresses of the
/// start and the sleep of the receiver thread. One at a time.
///
/// For test programs that list net/FakeNetlink.cpp among their sources.
class FakeNetlink
{
public:
    static constexpr int descriptor = 4711; // none of the process

    FakeNetlink();
    ~FakeNetlink();

    FakeNetlink(FakeNetlink const&) = delete;
    FakeNetlink& operator=(FakeNetlink const&) = delete;

    /// Lets socket, bind, fcntl or getifaddrs fail.
    void fail(std::string const& function, int error);

    /// What getifaddrs gives: numeric addresses, with "" for an entry without one and "packet" for another family.
    void setStart(std::vector<std::string> const& addresses);

    /// Called by getifaddrs before it answers.
    void beforeStart(std::function<void()> function);

    /// The answers to one poll, and to the recv that follows unless the poll's result is 0. Without any left, poll
    /// waits for more, or for close, and then gives 0.
    struct Pass
    {
        int pollResult{1};
        int pollError{0};
        std::string bytes{}; ///< what recv gives, unless there is an error
        int recvError{0};
        bool atClose{false}; ///< the poll waits for close before it answers
    };
    void add(Pass pass);

    /// Adds one pass with these bytes.
    void send(std::string const& bytes);

    /// Lets the next sleep be interrupted so long before its end.
    void interruptSleep(timespec remaining);

    /// @return false when the receiver thread has not used up all passes, but those at close, and come back to poll
    ///         within 10 s
    bool waitUntilIdle() const;

    /// What was called so far, with all arguments: on the owner's side, and by the receiver thread (passes that were
    /// waited for are listed once they answer).
    std::vector<std::string> ownerCalls() const;
    std::vector<std::string> receiverCalls() const;

    /// Adds a line of the test's own to the owner's calls.
    void note(std::string const& line);

    class State;
};

}
