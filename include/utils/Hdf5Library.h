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

    /// Releases the mutex. To be called on the thread that has locked it.
    ~Hdf5LibraryLock();

private:
    std::mutex& mutex;
};

/// Opens HDF5 at its first use, keeps it open to the end of the process, and has the one lock for all HDF5 work.
///
///     auto const lock = Hdf5Library::instance().lock();
///     H5::H5File const file(path, H5F_ACC_RDONLY);
///     H5::DataSet const samples = file.openDataSet("samples");
///
/// HDF5's calls are not wrapped: each piece of work takes the lock itself. That includes the destructors of HDF5
/// objects, so declare these after the lock. A thread-safe HDF5, such as Debian's, needs the lock as well: it protects
/// single calls of the C library, but neither the C++ classes nor a sequence of calls.
///
/// H5::Exception is not a std::exception. Catch it before it ends a thread, and inside a periodic function, whose log
/// line would lack its text.
///
/// Threads: instance() and lock() may be called from any thread. The first instance() switches off HDF5's own printing
/// of errors. A thread-safe HDF5 does so for that thread only: every other thread calls H5::Exception::dontPrint()
/// once, before its HDF5 work.
///
/// Limits:
/// - At exit the destructor closes HDF5, and with it all open files, without taking the lock. Threads with HDF5 work
///   must have ended by then. An object with static lifetime may use HDF5 in its destructor only if it was constructed
///   after the first instance() returned.
/// - A forked child closes HDF5 as well when it ends by exit(3), and so writes into its parent's files: end it by
///   _exit(2).
/// - HDF5's C++ library opens and closes HDF5 by itself as well, before main and last of all. That does no harm, but
///   the program starts some milliseconds later.
class HALDEN_CPPUTILS_EXPORT Hdf5Library : protected virtual Log::Logger
{
public:
    /// Opens HDF5 in the first call; the next call tries again after that has failed.
    ///
    /// @throws std::runtime_error "Failed to open HDF5 library"
    static Hdf5Library& instance();

    Hdf5Library(Hdf5Library const&) = delete;
    Hdf5Library& operator=(Hdf5Library const&) = delete;

    /// Waits until nobody else holds the lock, and takes it. Keep the result: the lock lasts as long as it does.
    ///
    /// The lock is not recursive: a thread that asks for it again while it holds it waits for ever. Take it where the
    /// HDF5 work begins, and not in the functions that are called from there.
    ///
    /// @throws std::system_error when the mutex cannot be locked
    [[nodiscard]] std::unique_ptr<Hdf5LibraryLock> lock();

private:
    Hdf5Library();
    ~Hdf5Library();

    std::mutex mutex; // guards HDF5, no field
};

}
