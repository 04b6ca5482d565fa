// The lock for all HDF5 work of the process.

#include <utils/Hdf5Library.h>

#include "files/WorkingDirectory.h"
#include "support/WaitFor.h"

#include <gmock/gmock.h>

#include <H5Cpp.h>

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <future>
#include <mutex>
#include <numeric>
#include <system_error>
#include <thread>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace std::chrono_literals;
using namespace testing;
using namespace TestSupport;

TEST(Hdf5LibraryLockTest, LockWaitsUntilTheOneBeforeIsDropped)
{
    auto first = Hdf5Library::instance().lock();
    std::atomic<bool> dropped{false};
    auto second = std::async(std::launch::async,
                             [&dropped]
                             {
                                 auto const lock = Hdf5Library::instance().lock();
                                 return dropped.load();
                             });
    EXPECT_FALSE(becomesReady(second, 100ms));

    dropped = true;
    first.reset();

    ASSERT_TRUE(becomesReady(second, 10s));
    EXPECT_TRUE(second.get());
}

/// Appends the number to the file's only data set, in several steps.
void append(std::filesystem::path const& path, int number)
{
    H5::H5File const file(path, H5F_ACC_RDWR);
    H5::DataSet const numbers = file.openDataSet("numbers");
    hsize_t const one = 1;
    hsize_t count = 0;
    numbers.getSpace().getSimpleExtentDims(&count);
    hsize_t const extended = count + 1;
    numbers.extend(&extended);
    H5::DataSpace const target = numbers.getSpace();
    target.selectHyperslab(H5S_SELECT_SET, &one, &count);
    numbers.write(&number, H5::PredType::NATIVE_INT, H5::DataSpace(1, &one), target);
}

std::vector<int> numbersIn(std::filesystem::path const& path)
{
    H5::H5File const file(path, H5F_ACC_RDONLY);
    H5::DataSet const numbers = file.openDataSet("numbers");
    std::vector<int> result(static_cast<std::size_t>(numbers.getSpace().getSimpleExtentNpoints()));
    numbers.read(result.data(), H5::PredType::NATIVE_INT);
    return result;
}

void createNumbers(std::filesystem::path const& path)
{
    hsize_t const none = 0;
    hsize_t const unlimited = H5S_UNLIMITED;
    hsize_t const chunk = 64;
    H5::DSetCreatPropList layout;
    layout.setChunk(1, &chunk);
    H5::H5File(path, H5F_ACC_TRUNC)
        .createDataSet("numbers", H5::PredType::NATIVE_INT, H5::DataSpace(1, &none, &unlimited), layout);
}

TEST(Hdf5LibraryLockTest, TwoThreadsThatLockLoseNothingInOneFile)
{
    constexpr int perThread = 100;
    WorkingDirectory const directory;
    std::filesystem::path const path = directory.path() + "/shared.h5";

    {
        auto const lock = Hdf5Library::instance().lock();
        createNumbers(path);
    }
    std::atomic<int> inside{0};
    auto const work = [&](int first)
    {
        for (int number = first; number < first + perThread; ++number)
        {
            auto const lock = Hdf5Library::instance().lock();
            EXPECT_EQ(++inside, 1);
            append(path, number);
            --inside;
        }
    };

    std::thread other(work, perThread);
    work(0);
    other.join();

    std::vector<int> expected(2UL * perThread);
    std::iota(expected.begin(), expected.end(), 0);
    auto const lock = Hdf5Library::instance().lock();
    EXPECT_THAT(numbersIn(path), UnorderedElementsAreArray(expected));
}

TEST(Hdf5LibraryLockTest, MutexIsHeldForAsLongAsTheLockLives)
{
    std::mutex mutex;
    auto const isFree = [&mutex]
    {
        return std::async(std::launch::async,
                          [&mutex] { return std::unique_lock(mutex, std::try_to_lock).owns_lock(); })
            .get();
    };
    {
        Hdf5LibraryLock const sut(mutex);

        EXPECT_FALSE(isFree());
    }
    EXPECT_TRUE(isFree());
}

TEST(Hdf5LibraryLockTest, MutexThatCannotBeLockedIsASystemError)
{
    std::mutex mutex;
    pthread_mutexattr_t errorChecking{};
    ASSERT_EQ(pthread_mutexattr_init(&errorChecking), 0);
    ASSERT_EQ(pthread_mutexattr_settype(&errorChecking, PTHREAD_MUTEX_ERRORCHECK), 0);
    ASSERT_EQ(pthread_mutex_init(mutex.native_handle(), &errorChecking), 0);
    Hdf5LibraryLock const held(mutex);

    EXPECT_THROW(
        {
            try
            {
                Hdf5LibraryLock const sut(mutex);
            }
            catch (std::system_error const& error)
            {
                EXPECT_EQ(error.code(), std::errc::resource_deadlock_would_occur);
                throw;
            }
        },
        std::system_error);

    EXPECT_EQ(pthread_mutex_lock(mutex.native_handle()), EDEADLK); // still held
}

}

}
