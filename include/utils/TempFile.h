#pragma once

#include <log/Logger.h>
#include <utils/Export.h>

#include <filesystem>
#include <string>

namespace Halden::Tavro::Utils
{

/// A new file, open, which is closed and removed when the object ends, see mkstemps(3).
///
///     TempFile const file("data-", ".h5", "/tmp"); // like /tmp/data-Ab12Cd.h5, for the owner only
///     write(file.fileDescriptor(), data.data(), data.size());
///
/// Threads: any, but the object must outlive every use of its path and descriptor.
///
/// Limits:
/// - Programs that the process starts inherit the descriptor. Where that matters, set FD_CLOEXEC with fcntl(2).
/// - Nobody notices when close(2) fails at the end. To be sure of what was written, call fsync(2) before.
/// - The removal succeeds when the file's directory is writable and nothing else has taken the file's place. A relative
///   path is looked up from the working directory of that moment, so that should be the one of the construction.
///
/// Hazards of the exact build:
/// - A file that cannot be removed ends the process, by a std::filesystem::filesystem_error out of the destructor. The
///   hardened build logs it at Error.
/// - A constructor that finds no memory for the path leaves the file, open.
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

    /// Closes the file and removes it, unless it is gone already.
    ~TempFile();

    /// Where the file is.
    std::string path() const;

    /// Open for reading and writing. Do not close it.
    int fileDescriptor() const;

private:
    std::filesystem::path path_;
    int fileDescriptor_{0};
};

}
