#include "net/FakeNetlink.h"

#include "net/NetlinkMessages.h"
#include "support/CallDouble.h"

#include <fcntl.h>
#include <ifaddrs.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstring>
#include <deque>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <sstream>

namespace Halden::Tavro::TestSupport
{

class FakeNetlink::State
{
public:
    /// Never destroyed: doubles are called until the end of the process.
    static State& instance()
    {
        static State& state = *new State;
        return state;
    }

    void start()
    {
        std::lock_guard const lock(mutex);
        active = true;
        closed = false;
        waiting = false;
        failures.clear();
        passes.clear();
        interruption.reset();
        owner.clear();
        receiver.clear();
        onStart = nullptr;
        entries.clear();
        storage.clear();
    }

    std::optional<int> failure(char const* function)
    {
        auto const found = failures.find(function);
        return found == failures.end() ? std::nullopt : std::optional(found->second);
    }

    /// Notes an owner's call. @return 0, or -1 with errno
    int ownerCall(char const* function, std::string const& arguments)
    {
        std::lock_guard const lock(mutex);
        owner.push_back(function + arguments);
        auto const error = failure(function);
        errno = error.value_or(errno);
        return error ? -1 : 0;
    }

    int poll(pollfd const& polled, nfds_t count, int timeout)
    {
        std::unique_lock lock(mutex);
        waiting = passes.empty() || passes.front().atClose;
        changed.notify_all();
        changed.wait(lock, [this] { return closed || (!passes.empty() && !passes.front().atClose); });
        waiting = false;
        std::ostringstream text;
        text << "poll(" << polled.fd << (polled.events == POLLIN ? ", POLLIN, " : ", other events, ") << count << ", "
             << timeout << ")";
        receiver.push_back(text.str());
        if (passes.empty())
        {
            return 0;
        }
        int const result = passes.front().pollResult;
        errno = passes.front().pollError;
        if (result == 0)
        {
            passes.pop_front();
        }
        return result;
    }

    ssize_t recv(int socket, void* buffer, std::size_t size, int flags)
    {
        std::lock_guard const lock(mutex);
        std::ostringstream text;
        text << "recv(" << socket << ", " << size << ", " << flags << ")";
        receiver.push_back(text.str());
        auto const pass = passes.front();
        passes.pop_front();
        if (pass.recvError != 0)
        {
            errno = pass.recvError;
            return -1;
        }
        std::memcpy(buffer, pass.bytes.data(), std::min(size, pass.bytes.size()));
        return static_cast<ssize_t>(pass.bytes.size());
    }

    int sleep(timespec const& duration, timespec* remaining)
    {
        std::lock_guard const lock(mutex);
        std::ostringstream text;
        text << "nanosleep(" << duration.tv_sec << " s " << duration.tv_nsec << " ns)";
        receiver.push_back(text.str());
        if (!interruption)
        {
            return 0;
        }
        *remaining = *interruption;
        interruption.reset();
        errno = EINTR;
        return -1;
    }

    int close()
    {
        std::lock_guard const lock(mutex);
        owner.emplace_back("close");
        closed = true;
        changed.notify_all();
        return 0;
    }

    int list(ifaddrs** result)
    {
        std::function<void()> before;
        {
            std::lock_guard const lock(mutex);
            before = onStart;
        }
        if (before)
        {
            before();
        }
        int const answer = ownerCall("getifaddrs", "");
        *result = answer == 0 && !entries.empty() ? &entries.front() : nullptr;
        return answer;
    }

    void addEntry(std::string const& address)
    {
        auto& place = storage.emplace_back();
        std::string const bytes = addressBytes(address.substr(0, address.find('%')));
        place.ss_family = bytes.empty() ? AF_PACKET : bytes.size() == sizeof(in_addr) ? AF_INET : AF_INET6;
        if (place.ss_family == AF_INET)
        {
            std::memcpy(&reinterpret_cast<sockaddr_in&>(place).sin_addr, bytes.data(), bytes.size());
        }
        if (place.ss_family == AF_INET6)
        {
            auto& ipv6 = reinterpret_cast<sockaddr_in6&>(place);
            std::memcpy(&ipv6.sin6_addr, bytes.data(), bytes.size());
            auto const percent = address.find('%');
            ipv6.sin6_scope_id =
                percent == std::string::npos ? 0 : static_cast<std::uint32_t>(std::stoul(address.substr(percent + 1)));
        }
        auto& entry = entries.emplace_back();
        entry.ifa_addr = address.empty() ? nullptr : reinterpret_cast<sockaddr*>(&place);
        if (entries.size() > 1)
        {
            std::prev(entries.end(), 2)->ifa_next = &entry;
        }
    }

    std::mutex mutex; // guards all that follows
    std::condition_variable changed;
    bool active{false};
    bool closed{false};
    bool waiting{false}; // the receiver thread, in poll, with nothing to answer yet
    std::map<std::string, int> failures;
    std::deque<Pass> passes;
    std::optional<timespec> interruption;
    std::vector<std::string> owner;
    std::vector<std::string> receiver;
    std::function<void()> onStart;
    std::list<ifaddrs> entries;
    std::list<sockaddr_storage> storage;
};

namespace
{

FakeNetlink::State& state()
{
    return FakeNetlink::State::instance();
}

bool isActive()
{
    std::lock_guard const lock(state().mutex);
    return state().active;
}

/// Others sleep as well, but have not polled the socket before.
thread_local bool isReceiver = false;

template <typename... Values>
std::string text(Values const&... values)
{
    std::ostringstream stream;
    (stream << ... << values);
    return stream.str();
}

}

FakeNetlink::FakeNetlink()
{
    state().start();
}

FakeNetlink::~FakeNetlink()
{
    std::lock_guard const lock(state().mutex);
    state().active = false;
}

void FakeNetlink::fail(std::string const& function, int error)
{
    std::lock_guard const lock(state().mutex);
    state().failures[function] = error;
}

void FakeNetlink::setStart(std::vector<std::string> const& addresses)
{
    std::lock_guard const lock(state().mutex);
    for (auto const& address : addresses)
    {
        state().addEntry(address);
    }
}

void FakeNetlink::beforeStart(std::function<void()> function)
{
    std::lock_guard const lock(state().mutex);
    state().onStart = std::move(function);
}

void FakeNetlink::add(Pass pass)
{
    std::lock_guard const lock(state().mutex);
    state().waiting = state().waiting && pass.atClose;
    state().passes.push_back(std::move(pass));
    state().changed.notify_all();
}

void FakeNetlink::send(std::string const& bytes)
{
    Pass pass;
    pass.bytes = bytes;
    add(pass);
}

void FakeNetlink::interruptSleep(timespec remaining)
{
    std::lock_guard const lock(state().mutex);
    state().interruption = remaining;
}

bool FakeNetlink::waitUntilIdle() const
{
    std::unique_lock lock(state().mutex);
    return state().changed.wait_for(lock, std::chrono::seconds(10), [] { return state().waiting; });
}

std::vector<std::string> FakeNetlink::ownerCalls() const
{
    std::lock_guard const lock(state().mutex);
    return state().owner;
}

std::vector<std::string> FakeNetlink::receiverCalls() const
{
    std::lock_guard const lock(state().mutex);
    return state().receiver;
}

void FakeNetlink::note(std::string const& line)
{
    std::lock_guard const lock(state().mutex);
    state().owner.push_back(line);
}

}

using namespace Halden::Tavro::TestSupport;

extern "C"
{

    int socket(int domain, int type, int protocol) noexcept
    {
        if (domain != AF_NETLINK || !isActive())
        {
            return systemFunction<int (*)(int, int, int)>("socket")(domain, type, protocol);
        }
        int const answer =
            state().ownerCall("socket", text(type == SOCK_RAW ? "(AF_NETLINK, SOCK_RAW, " : "(", protocol, ")"));
        return answer == 0 ? FakeNetlink::descriptor : answer;
    }

    int bind(int descriptor, sockaddr const* address, socklen_t length) noexcept
    {
        if (descriptor != FakeNetlink::descriptor)
        {
            return systemFunction<int (*)(int, sockaddr const*, socklen_t)>("bind")(descriptor, address, length);
        }
        sockaddr_nl given{};
        std::memcpy(&given, address, std::min<std::size_t>(length, sizeof(given)));
        return state().ownerCall("bind", text("(family ", given.nl_family, ", port ", given.nl_pid, ", groups 0x",
                                              std::hex, given.nl_groups, std::dec, ", length ", length, ")"));
    }

    int fcntlOfTest(int descriptor, int command, ...)
    {
        va_list arguments;
        va_start(arguments, command);
        void* const argument = va_arg(arguments, void*);
        va_end(arguments);
        if (descriptor != FakeNetlink::descriptor)
        {
            return systemFunction<int (*)(int, int, ...)>("fcntl")(descriptor, command, argument);
        }
        auto const flags = static_cast<int>(reinterpret_cast<std::intptr_t>(argument));
        return state().ownerCall("fcntl", text(command == F_SETFL ? "(F_SETFL, " : "(",
                                               flags == O_NONBLOCK ? "O_NONBLOCK" : "other flags", ")"));
    }

// The C library declares the entries as only written to.
#pragma GCC diagnostic push
#ifndef __clang__
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
    int poll(pollfd* polled, nfds_t count, int timeout)
    {
        if (count == 0 || polled->fd != FakeNetlink::descriptor)
        {
            return systemFunction<int (*)(pollfd*, nfds_t, int)>("poll")(polled, count, timeout);
        }
        isReceiver = true;
        return state().poll(*polled, count, timeout);
    }
#pragma GCC diagnostic pop

    ssize_t recv(int descriptor, void* buffer, size_t size, int flags)
    {
        return descriptor == FakeNetlink::descriptor
                   ? state().recv(descriptor, buffer, size, flags)
                   : systemFunction<ssize_t (*)(int, void*, size_t, int)>("recv")(descriptor, buffer, size, flags);
    }

    int nanosleep(timespec const* duration, timespec* remaining)
    {
        return isReceiver ? state().sleep(*duration, remaining)
                          : systemFunction<int (*)(timespec const*, timespec*)>("nanosleep")(duration, remaining);
    }

    int close(int descriptor)
    {
        return descriptor == FakeNetlink::descriptor ? state().close()
                                                     : systemFunction<int (*)(int)>("close")(descriptor);
    }

    int getifaddrs(ifaddrs** list) noexcept
    {
        return isActive() ? state().list(list) : systemFunction<int (*)(ifaddrs**)>("getifaddrs")(list);
    }

    void freeifaddrs(ifaddrs* list) noexcept
    {
        if (isActive())
        {
            static_cast<void>(state().ownerCall("freeifaddrs", ""));
            return;
        }
        systemFunction<void (*)(ifaddrs*)>("freeifaddrs")(list);
    }
}
HALDEN_DOUBLE(fcntl, fcntlOfTest)
