#pragma once

#include <log/Logger.h>
#include <utils/Export.h>

#include <memory>
#include <mutex>

namespace Halden::Tavro::Utils
{

/// Holds a mutex for as long as it lives.
class HALDEN_CPPUTILS_EXPORT Hdf5LibraryLock
{
public:
    /// Waits for the mutex.
    ///
    /// @param mutex outlives the lock
    /// @throws std::system_error when the mutex cannot be locked
    explicit Hdf5LibraryLock(std::mutex& mutex);

    Hdf5LibraryLock(Hdf5LibraryLock const&) = delete;
    Hdf5LibraryLock& operator=(Hdf5LibraryLock const&) = delete;

    /// To be called on the thread that has locked.
    ~Hdf5LibraryLock();

private:
    std::mutex& mutex;
};

/// Keeps HDF5 open from the first use to the end of the process, and has the one lock for all HDF5 work of the process.
///
///     auto const lock = Hdf5Library::instance().lock();
///     H5::H5File file(path, H5F_ACC_RDONLY);
///     ...
///
/// HDF5 calls are not wrapped, so each piece of work takes the lock itself, including the destructors of HDF5 objects:
/// declare these after the lock. A lock is needed even with an HDF5 that is built thread-safe, as Debian's is: that
/// makes single calls of the C library safe, but neither its C++ classes nor a sequence of calls.
///
/// Threads: instance() and lock() may be called from any. HDF5's own printing of errors is switched off on the thread
/// of the first instance() only, because a thread-safe HDF5 keeps that setting for each thread: every other one calls
/// H5::Exception::dontPrint() once, before its HDF5 work.
///
/// H5::Exception is no std::exception: catch it before the end of a thread, or of a periodic function, whose log line
/// would lack its text.
///
/// During exit the destructor closes HDF5, without taking the lock, and with it all files that are still open. Threads
/// with HDF5 work must have ended by then. Objects with static lifetime may use HDF5 in their destructors only if they
/// were constructed after the first instance() returned. HDF5's C++ library opens and closes HDF5 itself as well,
/// before main and last of all: that does no harm, but makes the start of every program some milliseconds longer.
class HALDEN_CPPUTILS_EXPORT Hdf5Library : protected virtual Log::Logger
{
public:
    /// Opens HDF5 in the first call; the next call tries again after that has failed.
    ///
    /// @throws std::runtime_error "Failed to open HDF5 library"
    static Hdf5Library& instance();

    Hdf5Library(Hdf5Library const&) = delete;
    Hdf5Library& operator=(Hdf5Library const&) = delete;

    /// Waits until nobody else holds the lock, which lasts until the result is dropped.
    ///
    /// The lock is not recursive: a thread that asks for it again while it holds it waits for ever. Take it where the
    /// HDF5 work begins, and not in functions called from there.
    ///
    /// @throws std::system_error when the mutex cannot be locked
    [[nodiscard]] std::unique_ptr<Hdf5LibraryLock> lock();

private:
    Hdf5Library();
    ~Hdf5Library();

    std::mutex mutex; // guards HDF5, no field
};

}
