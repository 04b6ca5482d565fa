#pragma once

#include <utils/Hdf5Library.h>

#include <H5Cpp.h>

#include <stdexcept>
#include <string>

/// What HDF5 on this thread says of the first call that fails, from construction to destruction. Its exceptions name
/// the call alone, and know of the reason no more once files and data sets are closed.
class Hdf5Reason
{
public:
    Hdf5Reason() { H5Eset_auto2(H5E_DEFAULT, note, this); }
    ~Hdf5Reason() { H5::Exception::dontPrint(); } // HDF5 keeps this for each thread

    Hdf5Reason(Hdf5Reason const&) = delete;
    Hdf5Reason& operator=(Hdf5Reason const&) = delete;

    /// "file write failed: No space left on device"
    std::string const& text() const { return text_; }

private:
    static herr_t note(hid_t stack, void* self)
    {
        H5Ewalk2(stack, H5E_WALK_UPWARD, noteInnermost, self);
        return 0;
    }

    static herr_t noteInnermost(unsigned /*depth*/, H5E_error2_t const* error, void* self)
    {
        auto& text = static_cast<Hdf5Reason*>(self)->text_;
        if (text.empty() && error->desc != nullptr)
        {
            std::string const whole = error->desc;
            text = whole.substr(0, whole.find_first_of(",:")) + systemsReason(whole);
        }
        return 0;
    }

    /// Of "unable to open file: name = 'f', errno = 13, error message = 'Permission denied', flags = 0".
    static std::string systemsReason(std::string const& whole)
    {
        std::string const label = "error message = '";
        auto const position = whole.find(label);
        if (position == std::string::npos)
        {
            return {};
        }
        auto const begin = position + label.size();
        return ": " + whole.substr(begin, whole.find('\'', begin) - begin);
    }

    std::string text_;
};

/// Does HDF5 work with a file under the lock of the process, from any thread.
///
/// H5::Exception is no std::exception, which is what the library logs with its text, and main expects.
///
/// @param path for the message
/// @param work makes its HDF5 objects itself, so that they are gone when the lock is
/// @throws std::runtime_error with the path and HDF5's reason, in place of an H5::Exception
template <typename Work>
auto doHdf5Work(std::string const& path, Work const& work)
{
    auto const lock = Halden::Tavro::Utils::Hdf5Library::instance().lock();
    Hdf5Reason const reason;
    try
    {
        return work();
    }
    catch (H5::Exception const&)
    {
        throw std::runtime_error(path + ": " + reason.text());
    }
}
