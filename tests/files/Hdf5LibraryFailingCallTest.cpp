// What the guard of HDF5 leaves behind when one of its calls fails.

#include <utils/Hdf5Library.h>

#include "support/CallDouble.h"
#include "support/ChildProcess.h"
#include "support/FailingCalls.h"
#include "support/NullSink.h"
#include "support/Resources.h"

#include <log/Logger.h>

#include <gmock/gmock.h>

#include <H5Cpp.h>

#include <cstddef>
#include <exception>
#include <functional>
#include <memory>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace testing;
using namespace TestSupport;

CallDouble<herr_t()> h5Open{"H5open"};

}

extern "C" herr_t H5open()
{
    return h5Open();
}

namespace
{

bool opens()
{
    try
    {
        Hdf5Library::instance();
        return true;
    }
    catch (std::exception const&)
    {
        return false;
    }
}

/// HDF5 is opened once in a process, so each test needs one of its own.
void inChild(std::function<void()> const& piece)
{
    expectInChild(
        [&piece]
        {
            Log::LoggerProxy::instance().setSink(std::make_shared<NullSink>());
            piece();
        });
}

/// Lets the first of these calls fail, in the next try the second, and so on until HDF5 can be opened.
void expectNothingLeftBy(FailingCalls const& calls)
{
    SCOPED_TRACE(calls.name);
    bool isOpen = false;
    for (std::size_t n = 1; !isOpen && !Test::HasFailure(); ++n)
    {
        Holdings const before = holdings();
        calls.fail(n);
        isOpen = opens();
        EXPECT_EQ(calls.stop(), !isOpen);
        EXPECT_TRUE(isOpen || isBackTo(before)) << n;
        EXPECT_TRUE(!isOpen || n > 1) << "makes no such call";
    }
}

TEST(Hdf5LibraryFailingCallTest, OpeningThatFailsLeavesNothingAndIsTriedAgain)
{
    inChild([] { expectNothingLeftBy(callsOf("H5open", h5Open, -1, 0)); });
    inChild([] { expectNothingLeftBy(allocations()); });
}

TEST(Hdf5LibraryFailingCallTest, LockThatFindsNoMemoryIsNotTaken)
{
    inChild(
        []
        {
            auto const lockAndUnlock = [] { Hdf5Library::instance().lock().reset(); };

            EXPECT_THAT(leftByFailingCalls({allocations()}, lockAndUnlock), IsEmpty());
        });
}

}

}
