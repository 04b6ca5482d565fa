#include "net/FakeNetlink.h"

#include "net/NetlinkMessages.h"
#include "support/CallDouble.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <sstream>
#include <utility>

namespace Halden::Tavro::TestSupport
{

CallDouble<int(int, int, int)> socketDouble{"socket"};
CallDouble<int(int, sockaddr const*, socklen_t)> bindDouble{"bind"};
CallDouble<int(int, int, void*)> fcntlDouble{"fcntl"};
CallDouble<int(pollfd*, nfds_t, int)> pollDouble{"poll"};
CallDouble<ssize_t(int, void*, std::size_t, int)> recvDouble{"recv"};
CallDouble<ssize_t(int, void const*, std::size_t, int)> sendDouble{"send"};
CallDouble<int(ifaddrs**)> getifaddrsDouble{"getifaddrs"};

namespace
{

CallDouble<int(timespec const*, timespec*)> nanosleepDouble{"nanosleep"};
CallDouble<int(int)> closeDouble{"close"};
CallDouble<void(ifaddrs*)> freeifaddrsDouble{"freeifaddrs"};

void resetDoubles()
{
    socketDouble.reset();
    bindDouble.reset();
    fcntlDouble.reset();
    pollDouble.reset();
    recvDouble.reset();
    sendDouble.reset();
    nanosleepDouble.reset();
    closeDouble.reset();
    getifaddrsDouble.reset();
    freeifaddrsDouble.reset();
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

/// Answers the calls about the fake socket, and passes on those about others.
template <typename Double, typename Answer>
void replaceForSocket(Double& callDouble, Answer const& answer)
{
    callDouble.replace(
        [&callDouble, answer](int descriptor, auto... arguments) {
            return descriptor == FakeNetlink::descriptor ? answer(arguments...)
                                                         : callDouble.passOn(descriptor, arguments...);
        });
}

std::string bindText(sockaddr const* address, socklen_t length)
{
    sockaddr_nl given{};
    std::memcpy(&given, address, std::min<std::size_t>(length, sizeof(given)));
    return text("(family ", given.nl_family, ", port ", given.nl_pid, ", groups 0x", std::hex, given.nl_groups,
                std::dec, ", length ", length, ")");
}

std::string fcntlText(int command, void* argument)
{
    auto const flags = static_cast<int>(reinterpret_cast<std::intptr_t>(argument));
    return text(command == F_SETFL ? "(F_SETFL, " : "(", flags == O_NONBLOCK ? "O_NONBLOCK" : "other flags", ")");
}

}

FakeNetlink::FakeNetlink()
{
    owner.reserve(64); // so that a test that counts blocks does not see the first call
    receiver.reserve(64);
    resetDoubles();
    socketDouble.replace(
        [this](int domain, int type, int protocol)
        {
            if (domain != AF_NETLINK)
            {
                return socketDouble.passOn(domain, type, protocol);
            }
            int const answer = call("socket", text(type == SOCK_RAW ? "(AF_NETLINK, SOCK_RAW, " : "(", protocol, ")"));
            return answer == 0 ? open() : answer;
        });
    replaceForSocket(bindDouble, [this](sockaddr const* address, socklen_t length)
                     { return call("bind", bindText(address, length)); });
    replaceForSocket(fcntlDouble,
                     [this](int command, void* argument) { return call("fcntl", fcntlText(command, argument)); });
    replaceForSocket(recvDouble, [this](void* buffer, std::size_t size, int flags)
                     { return answerRecv(descriptor, buffer, size, flags); });
    replaceForSocket(sendDouble,
                     [this](void const* bytes, std::size_t size, int flags) { return answerSend(bytes, size, flags); });
    replaceForSocket(closeDouble, [this] { return answerClose(); });
    pollDouble.replace(
        [this](pollfd* polled, nfds_t count, int timeout)
        {
            bool const ours = count != 0 && polled->fd == descriptor;
            return ours ? answerPoll(*polled, count, timeout) : pollDouble.passOn(polled, count, timeout);
        });
    nanosleepDouble.replace(
        [this](timespec const* duration, timespec* remaining)
        { return isReceiver ? answerSleep(*duration, remaining) : nanosleepDouble.passOn(duration, remaining); });
    getifaddrsDouble.replace([this](ifaddrs** list) { return answerAddresses(list); });
    freeifaddrsDouble.replace(
        [this](ifaddrs* /*list*/)
        {
            std::lock_guard const lock(mutex);
            --inUse;
        });
}

FakeNetlink::~FakeNetlink()
{
    resetDoubles();
}

void FakeNetlink::fail(std::string const& function, int error)
{
    std::lock_guard const lock(mutex);
    failures[function] = error;
}

void FakeNetlink::setAddresses(std::vector<std::string> const& addresses)
{
    std::lock_guard const lock(mutex);
    if (inUse == 0)
    {
        lists.clear();
    }
    List& list = lists.emplace_back();
    for (auto const& address : addresses)
    {
        addEntry(list, address);
    }
}

void FakeNetlink::beforeAddresses(std::function<void()> function)
{
    std::lock_guard const lock(mutex);
    onAddresses = std::move(function);
}

void FakeNetlink::beforeSend(std::function<void()> function)
{
    std::lock_guard const lock(mutex);
    onSend = std::move(function);
}

int FakeNetlink::listsInUse() const
{
    std::lock_guard const lock(mutex);
    return inUse;
}

void FakeNetlink::add(Pass pass)
{
    std::lock_guard const lock(mutex);
    waiting = waiting && pass.atEnd;
    passes.push_back(std::move(pass));
    changed.notify_all();
}

void FakeNetlink::send(std::string const& bytes)
{
    Pass pass;
    pass.bytes = bytes;
    add(pass);
}

void FakeNetlink::interruptSleep(timespec remaining)
{
    std::lock_guard const lock(mutex);
    interruption = remaining;
}

bool FakeNetlink::waitUntilIdle() const
{
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, std::chrono::minutes(1), [this] { return waiting; });
}

bool FakeNetlink::isOpen() const
{
    std::lock_guard const lock(mutex);
    return opened;
}

void FakeNetlink::forgetCalls()
{
    std::lock_guard const lock(mutex);
    owner.clear();
    receiver.clear();
}

std::vector<std::string> FakeNetlink::ownerCalls() const
{
    std::lock_guard const lock(mutex);
    return owner;
}

std::vector<std::string> FakeNetlink::receiverCalls() const
{
    std::lock_guard const lock(mutex);
    return receiver;
}

void FakeNetlink::note(std::string const& line)
{
    std::lock_guard const lock(mutex);
    owner.push_back(line);
}

void FakeNetlink::addEntry(List& list, std::string const& address)
{
    auto& place = list.storage.emplace_back();
    place.ss_family = address.empty() || address == "packet" ? AF_PACKET : familyOf(address);
    if (place.ss_family == AF_INET)
    {
        auto const bytes = addressBytes(address);
        std::memcpy(&reinterpret_cast<sockaddr_in&>(place).sin_addr, bytes.data(), bytes.size());
    }
    if (place.ss_family == AF_INET6)
    {
        auto& ipv6 = reinterpret_cast<sockaddr_in6&>(place);
        auto const percent = address.find('%');
        auto const bytes = addressBytes(address.substr(0, percent));
        std::memcpy(&ipv6.sin6_addr, bytes.data(), bytes.size());
        ipv6.sin6_scope_id =
            percent == std::string::npos ? 0 : static_cast<std::uint32_t>(std::stoul(address.substr(percent + 1)));
    }
    auto& entry = list.entries.emplace_back();
    entry.ifa_addr = address.empty() ? nullptr : reinterpret_cast<sockaddr*>(&place);
    if (list.entries.size() > 1)
    {
        std::prev(list.entries.end(), 2)->ifa_next = &entry;
    }
}

/// Notes a call of the thread that makes it. @return 0, or -1 with errno
int FakeNetlink::call(char const* function, std::string const& arguments)
{
    std::lock_guard const lock(mutex);
    (isReceiver ? receiver : owner).push_back(function + arguments);
    auto const failure = failures.find(function);
    if (failure == failures.end() || failure->second == 0)
    {
        return 0;
    }
    errno = failure->second;
    return -1;
}

int FakeNetlink::open()
{
    std::lock_guard const lock(mutex);
    opened = true;
    ending = false;
    return descriptor;
}

int FakeNetlink::answerPoll(pollfd const& polled, nfds_t count, int timeout)
{
    isReceiver = true;
    std::unique_lock lock(mutex);
    auto const hasAnswer = [this] { return ending || (!passes.empty() && !passes.front().atEnd); };
    if (timeout != 0)
    {
        waiting = passes.empty() || passes.front().atEnd;
        changed.notify_all();
        changed.wait(lock, hasAnswer);
        waiting = false;
    }
    receiver.push_back(text("poll(", polled.fd, polled.events == POLLIN ? ", POLLIN, " : ", other events, ", count,
                            ", ", timeout, ")"));
    if (!hasAnswer() || passes.empty())
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

ssize_t FakeNetlink::answerRecv(int socket, void* buffer, std::size_t size, int flags)
{
    std::lock_guard const lock(mutex);
    receiver.push_back(text("recv(", socket, ", ", size, ", ", flags, ")"));
    if (passes.empty())
    {
        errno = EAGAIN;
        return -1;
    }
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

int FakeNetlink::answerSleep(timespec const& duration, timespec* remaining)
{
    std::lock_guard const lock(mutex);
    receiver.push_back(text("nanosleep(", duration.tv_sec, " s ", duration.tv_nsec, " ns)"));
    if (!interruption)
    {
        return 0;
    }
    *remaining = *interruption;
    interruption.reset();
    errno = EINTR;
    return -1;
}

/// Without the lock, for it may use everything here.
void FakeNetlink::runBefore(std::function<void()> const& function) const
{
    std::function<void()> copy;
    {
        std::lock_guard const lock(mutex);
        copy = function;
    }
    if (copy)
    {
        copy();
    }
}

/// The kernel's side of a wake-up.
ssize_t FakeNetlink::answerSend(void const* bytes, std::size_t size, int flags)
{
    runBefore(onSend);
    nlmsghdr message{};
    std::memcpy(&message, bytes, std::min(size, sizeof(message)));
    bool const asksForAnswer = size == sizeof(message) && message.nlmsg_len == size &&
                               message.nlmsg_type == NLMSG_NOOP && message.nlmsg_flags == (NLM_F_REQUEST | NLM_F_ACK) &&
                               flags == 0;
    if (call("send", asksForAnswer ? "(NLMSG_NOOP)" : "(something else)") != 0)
    {
        return -1;
    }
    std::lock_guard const lock(mutex);
    ending = true;
    changed.notify_all();
    return static_cast<ssize_t>(size);
}

int FakeNetlink::answerClose()
{
    std::lock_guard const lock(mutex);
    owner.emplace_back("close");
    opened = false;
    ending = true;
    changed.notify_all();
    return 0;
}

int FakeNetlink::answerAddresses(ifaddrs** result)
{
    runBefore(onAddresses);
    int const answer = call("getifaddrs", "");
    std::lock_guard const lock(mutex);
    auto& entries = lists.back().entries;
    *result = answer == 0 && !entries.empty() ? &entries.front() : nullptr;
    inUse += *result == nullptr ? 0 : 1;
    return answer;
}

}

using namespace Halden::Tavro::TestSupport;

extern "C"
{

    int socket(int domain, int type, int protocol) noexcept
    {
        return socketDouble(domain, type, protocol);
    }

    int bind(int descriptor, sockaddr const* address, socklen_t length) noexcept
    {
        return bindDouble(descriptor, address, length);
    }

    int fcntlOfTest(int descriptor, int command, void* argument)
    {
        return fcntlDouble(descriptor, command, argument);
    }

// The C library declares the entries as only written to.
#pragma GCC diagnostic push
#ifndef __clang__
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
    int poll(pollfd* polled, nfds_t count, int timeout)
    {
        return pollDouble(polled, count, timeout);
    }
#pragma GCC diagnostic pop

    ssize_t recv(int descriptor, void* buffer, size_t size, int flags)
    {
        return recvDouble(descriptor, buffer, size, flags);
    }

    ssize_t send(int descriptor, void const* bytes, size_t size, int flags)
    {
        return sendDouble(descriptor, bytes, size, flags);
    }

    int nanosleep(timespec const* duration, timespec* remaining)
    {
        return nanosleepDouble(duration, remaining);
    }

    int close(int descriptor)
    {
        return closeDouble(descriptor);
    }

    int getifaddrs(ifaddrs** list) noexcept
    {
        return getifaddrsDouble(list);
    }

    void freeifaddrs(ifaddrs* list) noexcept
    {
        freeifaddrsDouble(list);
    }
}
HALDEN_DOUBLE(fcntl, fcntlOfTest)
