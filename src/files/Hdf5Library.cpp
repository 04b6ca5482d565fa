#include <utils/Hdf5Library.h>

#include "log/Log.h"

#include <H5Cpp.h>

#include <stdexcept>

namespace Halden::Tavro::Utils
{

Hdf5LibraryLock::Hdf5LibraryLock(std::mutex& mutex)
    : mutex(mutex)
{
    mutex.lock();
}

Hdf5LibraryLock::~Hdf5LibraryLock()
{
    mutex.unlock();
}

Hdf5Library& Hdf5Library::instance()
{
    static Hdf5Library library;
    return library;
}

Hdf5Library::Hdf5Library()
    : Log::Logger("Halden::Tavro::Utils::Hdf5Library", "", std::make_shared<Log::LoggerImpl>())
{
    int const result = H5open();
    if (result < 0)
    {
        TAVRO_LOG_TO(*this, Log::Severity::Error, "H5open failed with %d", result);
        throw std::runtime_error("Failed to open HDF5 library");
    }
    H5::Exception::dontPrint();
}

Hdf5Library::~Hdf5Library()
{
    int const result = H5close();
    if (result < 0)
    {
        TAVRO_LOG_TO(*this, Log::Severity::Error, "H5close failed with %d", result);
    }
}

std::unique_ptr<Hdf5LibraryLock> Hdf5Library::lock()
{
    return std::make_unique<Hdf5LibraryLock>(mutex);
}

}
