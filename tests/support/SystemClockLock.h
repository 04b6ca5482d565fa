#pragma once

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Halden::Tavro::TestSupport
{

/// A test that sets the system clock, or must not see it set, has one of these meanwhile: all programs of the machine
/// share the clock, whoever runs them. What they lock, with flock(2), is the root folder, for it is there wherever they
/// run.
class SystemClockLock
{
public:
    SystemClockLock()
        : root(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC))
    {
        EXPECT_EQ(flock(root, LOCK_EX), 0) << strerror(errno);
    }

    ~SystemClockLock() { close(root); }

    SystemClockLock(SystemClockLock const&) = delete;
    SystemClockLock& operator=(SystemClockLock const&) = delete;

private:
    int root;
};

}
