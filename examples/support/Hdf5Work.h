#pragma once

#include <utils/Hdf5Library.h>

#include <H5Cpp.h>

#include <stdexcept>
#include <string>

/// Does HDF5 work with a file under the lock of the process, from any thread.
///
/// H5::Exception is no std::exception, which is what the library logs with its text, and main expects.
///
/// @param path for the message
/// @param work makes its HDF5 objects itself, so that they are gone when the lock is
/// @throws std::runtime_error with the path and HDF5's text, in place of an H5::Exception
template <typename Work>
auto doHdf5Work(std::string const& path, Work const& work)
{
    auto const lock = Halden::Tavro::Utils::Hdf5Library::instance().lock();
    H5::Exception::dontPrint(); // HDF5 keeps this for each thread
    try
    {
        return work();
    }
    catch (H5::Exception const& exception)
    {
        throw std::runtime_error(path + ": " + exception.getFuncName() + ": " + exception.getDetailMsg());
    }
}
