#pragma once

#include <log/Logger.h>
#include <utils/Export.h>

#include <filesystem>
#include <string>

namespace Halden::Tavro::Utils
{

/// An open file of its own name for as long as the object lives, see mkstemps(3).
///
///     TempFile const file("data-", ".h5", "/tmp"); // like /tmp/data-Ab12Cd.h5, for the owner only
///     write(file.fileDescriptor(), ...);
///
/// Threads: any, but the object must outlive every use of its path and descriptor.
///
/// The descriptor is inherited by programs that the process starts; where that matters, set FD_CLOEXEC with fcntl(2). A
/// failing close(2) at the end goes unnoticed: to be sure of what was written, call fsync(2) before.
///
/// For the removal at the end to succeed, the file's directory is writable and nothing else has taken the file's place.
/// A relative path is looked up from the working directory of that moment, which should be the one of construction.
///
/// Hazards of the exact build:
/// A file that cannot be removed ends the process, as the std::filesystem::filesystem_error leaves the destructor; the
/// hardened build logs it at severity Error. A constructor that finds no memory for the path leaves the file, open.
class HALDEN_CPPUTILS_EXPORT TempFile : private Log::Logger
{
public:
    /// Joins as std::filesystem::path does: an empty directory stands for the working directory, and an absolute prefix
    /// takes the directory's place.
    ///
    /// @throws std::runtime_error "Cannot create temporary file"
    TempFile(std::string const& prefix, std::string const& suffix, std::string const& directory);

    TempFile(TempFile const&) = delete;
    TempFile& operator=(TempFile const&) = delete;

    /// Closes and removes the file. One that is removed already is fine.
    ~TempFile();

    std::string path() const;

    /// Open for reading and writing, and not to be closed by the caller.
    int fileDescriptor() const;

private:
    std::filesystem::path path_;
    int fileDescriptor_{0};
};

}
