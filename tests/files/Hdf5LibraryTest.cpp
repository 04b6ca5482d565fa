// HDF5 is opened once for all, and closed at the end of the process.

#include <utils/Hdf5Library.h>

#include "files/WorkingDirectory.h"
#include "support/CallDouble.h"
#include "support/ChildProcess.h"
#include "support/LogCapture.h"
#include "support/PrintingSink.h"

#include <gmock/gmock.h>

#include <H5Cpp.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <type_traits>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace testing;
using namespace TestSupport;

// HDF5's C++ library calls some before any object of the program exists, and after all are gone.
CallDouble<herr_t()> h5Open{"H5open"};
CallDouble<herr_t()> h5Close{"H5close"};
CallDouble<herr_t(hid_t, H5E_auto2_t, void*)> setErrorPrinting{"H5Eset_auto2"};

}

extern "C" herr_t H5open()
{
    return h5Open();
}

extern "C" herr_t H5close()
{
    return h5Close();
}

extern "C" herr_t H5Eset_auto2(hid_t stack, H5E_auto2_t function, void* data)
{
    return setErrorPrinting(stack, function, data);
}

namespace
{

constexpr char const* loggerName = "Halden::Tavro::Utils::Hdf5Library";

/// Each test needs the first instance() of a process, so it runs in a child.
class Hdf5LibraryTest : public Test
{
protected:
    Hdf5LibraryTest()
    {
        h5Open.reset();
        h5Close.reset();
        setErrorPrinting.reset();
    }

    /// As expectInChild(), but the child ends as programs do: destructors run, and its log lines are printed. What
    /// comes after "end" is the doing of HDF5's C++ library, which closes the C library itself, but last of all.
    static std::string untilExit(std::function<void()> const& piece)
    {
        std::fflush(stdout); // else the child would print what the test program has not yet
        return expectInChild(
            [&]
            {
                Log::LoggerProxy::instance().setSink(std::make_shared<PrintingSink>());
                Log::LoggerProxy::instance().setThreshold(Log::Severity::Trace);
                std::atexit([] { print("end"); });
                piece();
                print("exit");
                std::exit(HasFailure() ? 1 : 0);
            });
    }

    WorkingDirectory const workingDirectory;
    std::filesystem::path const directory = workingDirectory.path();
};

void openMissingFile()
{
    EXPECT_THROW(H5::H5File("/nowhere/none.h5", H5F_ACC_RDONLY), H5::FileIException);
}

static_assert(std::is_same_v<decltype(&Hdf5Library::instance), Hdf5Library& (*)()>);
static_assert(std::is_same_v<decltype(&Hdf5Library::lock), std::unique_ptr<Hdf5LibraryLock> (Hdf5Library::*)()>);
static_assert(std::is_base_of_v<Log::Logger, Hdf5Library> && !std::is_convertible_v<Hdf5Library*, Log::Logger*>);
static_assert(!std::is_polymorphic_v<Hdf5Library> && !std::is_polymorphic_v<Hdf5LibraryLock>);
static_assert(!std::is_copy_constructible_v<Hdf5Library> && !std::is_copy_assignable_v<Hdf5Library>);
static_assert(!std::is_copy_constructible_v<Hdf5LibraryLock> && !std::is_copy_assignable_v<Hdf5LibraryLock>);
static_assert(sizeof(Hdf5LibraryLock) == sizeof(std::mutex*));

TEST_F(Hdf5LibraryTest, Hdf5IsOpenedOnceForAllThreads)
{
    expectInChild(
        []
        {
            LogCapture const log;
            std::promise<void> start;
            auto const started = start.get_future().share();
            std::vector<std::future<Hdf5Library*>> threads;
            threads.reserve(8);
            for (int i = 0; i < 8; ++i)
            {
                threads.push_back(std::async(std::launch::async,
                                             [&started]
                                             {
                                                 started.wait();
                                                 return &Hdf5Library::instance();
                                             }));
            }

            start.set_value();

            std::set<Hdf5Library*> instances{&Hdf5Library::instance()};
            for (auto& thread : threads)
            {
                instances.insert(thread.get());
            }
            EXPECT_THAT(instances, SizeIs(1));
            EXPECT_EQ(h5Open.count(), 1U);
            EXPECT_EQ(h5Close.count(), 0U);
            EXPECT_THAT(log.lines(), IsEmpty());
        });
}

TEST_F(Hdf5LibraryTest, FailedOpenIsLoggedThrownAndTriedAgainInTheNextCall)
{
    expectInChild(
        []
        {
            LogCapture log;
            log.expect(isLine(Log::Severity::Error, loggerName, StartsWith("H5open failed with ")));
            h5Open.failCall(1, -1, 0);
            h5Open.failCall(2, -7, 0);

            EXPECT_THAT([] { Hdf5Library::instance(); },
                        ThrowsMessage<std::runtime_error>(StrEq("Failed to open HDF5 library")));
            EXPECT_THAT([] { Hdf5Library::instance(); },
                        ThrowsMessage<std::runtime_error>(StrEq("Failed to open HDF5 library")));
            EXPECT_EQ(setErrorPrinting.count(), 0U);
            EXPECT_NO_THROW(Hdf5Library::instance());

            EXPECT_EQ(h5Open.count(), 3U);
            EXPECT_THAT(log.lines(), ElementsAre(isLine(Log::Severity::Error, loggerName, "H5open failed with -1"),
                                                 isLine(Log::Severity::Error, loggerName, "H5open failed with -7")));
        });
}

TEST_F(Hdf5LibraryTest, AnyResultFromZeroOnIsASuccess)
{
    std::string const output = untilExit(
        []
        {
            h5Open.failCall(1, 1, 0);
            h5Close.failCall(1, 1, 0);
            EXPECT_NO_THROW(Hdf5Library::instance());
        });

    EXPECT_EQ(output, "exit\nend\n");
}

TEST_F(Hdf5LibraryTest, ErrorPrintingIsSwitchedOffOnceHdf5IsOpen)
{
    expectInChild(
        []
        {
            h5Open.replace(
                []
                {
                    EXPECT_EQ(setErrorPrinting.count(), 0U);
                    return h5Open.passOn();
                });

            Hdf5Library::instance();

            EXPECT_THAT(setErrorPrinting.calls(), ElementsAre(FieldsAre(H5E_DEFAULT, nullptr, nullptr)));
        });
}

TEST_F(Hdf5LibraryTest, ErrorsOfTheFirstThreadStayOffTheTerminal)
{
    std::string const output = expectInChild(
        []
        {
            Hdf5Library::instance();

            openMissingFile();
        });

    EXPECT_EQ(output, "");
}

TEST_F(Hdf5LibraryTest, EachOtherThreadKeepsItsErrorsOffTheTerminalItself)
{
    bool threadSafe = false;
    ASSERT_GE(H5is_library_threadsafe(&threadSafe), 0);
    auto const openInThread = [](bool quiet)
    {
        return expectInChild(
            [quiet]
            {
                Hdf5Library::instance();
                std::thread(
                    [quiet]
                    {
                        if (quiet)
                        {
                            H5::Exception::dontPrint();
                        }
                        openMissingFile();
                    })
                    .join();
            });
    };

    EXPECT_EQ(openInThread(true), "");
    if (threadSafe) // else the setting is that of the whole process
    {
        EXPECT_THAT(openInThread(false), StartsWith("HDF5-DIAG: Error detected in HDF5"));
    }
}

void printCloses()
{
    h5Close.replace(
        []
        {
            print("close");
            return h5Close.passOn();
        });
}

TEST_F(Hdf5LibraryTest, Hdf5IsClosedOnceAtExitWithoutAWord)
{
    std::string const output = untilExit(
        []
        {
            printCloses();
            Hdf5Library::instance();
            std::ignore = Hdf5Library::instance().lock();
        });

    EXPECT_THAT(output, StartsWith("exit\nclose\nend\n"));
}

TEST_F(Hdf5LibraryTest, FailedCloseIsLoggedAndTheExitGoesOn)
{
    std::string const output = untilExit(
        []
        {
            h5Close.failCall(1, -3, 0);
            Hdf5Library::instance();
        });

    EXPECT_EQ(output, "exit\n1 [Halden::Tavro::Utils::Hdf5Library] H5close failed with -3\nend\n");
}

TEST_F(Hdf5LibraryTest, NothingIsClosedWhereNothingWasOpened)
{
    std::string const output = untilExit(
        []
        {
            printCloses();
            h5Open.failCall(1, -1, 0);
            EXPECT_THROW(Hdf5Library::instance(), std::runtime_error);
        });

    EXPECT_THAT(output, StartsWith("1 [Halden::Tavro::Utils::Hdf5Library] H5open failed with -1\nexit\nend\n"));
}

TEST_F(Hdf5LibraryTest, FilesThatAreStillOpenAreWholeAfterTheExit)
{
    auto const path = directory / "open.h5";
    std::string const output = untilExit(
        [&]
        {
            static H5::H5File const olderThanTheGuard(directory / "older.h5", H5F_ACC_TRUNC);
            Hdf5Library::instance();
            static H5::H5File const file(path, H5F_ACC_TRUNC);
            file.createGroup("runs").close();
            EXPECT_GE(H5Fcreate((directory / "forgotten.h5").c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, H5P_DEFAULT), 0);
        });

    EXPECT_EQ(output, "exit\nend\n");
    expectInChild(
        [&]
        {
            EXPECT_TRUE(H5::H5File(path, H5F_ACC_RDONLY).nameExists("runs"));
            EXPECT_NO_THROW(H5::H5File(directory / "older.h5", H5F_ACC_RDONLY));
            EXPECT_NO_THROW(H5::H5File(directory / "forgotten.h5", H5F_ACC_RDONLY));
        });
}

}

}
