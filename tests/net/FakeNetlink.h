#pragma once

#include "support/CallDouble.h"

#include <ifaddrs.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <condition_variable>
#include <cstddef>
#include <ctime>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace Halden::Tavro::TestSupport
{

extern CallDouble<int(int, int, int)> socketDouble;
extern CallDouble<int(int, sockaddr const*, socklen_t)> bindDouble;
extern CallDouble<int(int, int, void*)> fcntlDouble;
extern CallDouble<int(pollfd*, nfds_t, int)> pollDouble;
extern CallDouble<ssize_t(int, void*, std::size_t, int)> recvDouble;
extern CallDouble<ssize_t(int, void const*, std::size_t, int)> sendDouble;
extern CallDouble<int(ifaddrs**)> getifaddrsDouble;

/// Stands in for the kernel towards LocalIps, for as long as it lives: the socket, its events, the addresses of the
/// interfaces and the sleep of the receiver thread. One at a time.
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

    /// Lets socket, bind, fcntl, send or getifaddrs fail; with 0 no longer.
    void fail(std::string const& function, int error);

    /// What getifaddrs gives from now on: numeric addresses, with "" for an entry without one and "packet" for another
    /// family.
    void setAddresses(std::vector<std::string> const& addresses);

    /// Called by getifaddrs before it answers.
    void beforeAddresses(std::function<void()> function);

    /// Called by send before it answers.
    void beforeSend(std::function<void()> function);

    /// How many lists of getifaddrs have not been given back.
    int listsInUse() const;

    /// Whether the socket has been opened, and not closed since.
    bool isOpen() const;

    /// The answers to one poll, and to the recv that follows unless the poll's result is 0. Without any left, poll
    /// gives 0: at once when asked not to wait, else when the socket is closed or the kernel is sent a message; and
    /// recv has nothing.
    struct Pass
    {
        int pollResult{1};
        int pollError{0};
        std::string bytes{}; ///< what recv gives, unless there is an error
        int recvError{0};
        bool atEnd{false}; ///< the poll waits for that end before it answers
    };
    void add(Pass pass);

    /// Adds one pass with these bytes.
    void send(std::string const& bytes);

    /// Lets the next sleep be interrupted so long before its end.
    void interruptSleep(timespec remaining);

    /// @return false when the receiver thread has not used up all passes, but those at the end, and come back to poll
    ///         within a minute
    bool waitUntilIdle() const;

    /// What was called so far, with all arguments: on the owner's side, and by the receiver thread (passes that were
    /// waited for are listed once they answer).
    std::vector<std::string> ownerCalls() const;
    std::vector<std::string> receiverCalls() const;

    void forgetCalls();

    /// Adds a line of the test's own to the owner's calls.
    void note(std::string const& line);

private:
    struct List
    {
        std::list<ifaddrs> entries;
        std::list<sockaddr_storage> storage;
    };

    int open();
    void addEntry(List& list, std::string const& address);
    void runBefore(std::function<void()> const& function) const;
    int call(char const* function, std::string const& arguments);
    int answerPoll(pollfd const& polled, nfds_t count, int timeout);
    ssize_t answerRecv(int socket, void* buffer, std::size_t size, int flags);
    int answerSleep(timespec const& duration, timespec* remaining);
    ssize_t answerSend(void const* bytes, std::size_t size, int flags);
    int answerClose();
    int answerAddresses(ifaddrs** result);

    mutable std::mutex mutex; // guards all that follows
    mutable std::condition_variable changed;
    bool opened{false};
    bool ending{false};
    bool waiting{false}; // the receiver thread, in poll, with nothing to answer yet
    int inUse{0};
    std::map<std::string, int> failures;
    std::deque<Pass> passes;
    std::optional<timespec> interruption;
    std::vector<std::string> owner;
    std::vector<std::string> receiver;
    std::function<void()> onAddresses;
    std::function<void()> onSend;
    std::list<List> lists{1}; // the last is the present one; the others may still be read
};

}
