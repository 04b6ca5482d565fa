#pragma once

#include <log/Logger.h>
#include <utils/Export.h>

#include <filesystem>
#include <string>

namespace Halden::Tavro::Utils
{

/// A new directory, which is removed with all its contents when the object ends, see mkdtemp(3).
///
///     TempDir const work("export-", "/tmp"); // like /tmp/export-Ab12Cd, for the owner only
///     std::ofstream(work.path() + "/data.csv") << "time;value\n";
///
/// Threads: any, but the object must outlive every use of its path.
///
/// Limits: the removal succeeds when every writer in the directory has finished, no mount is left below it, and its
/// directories are writable and not nested deeper than the process can open descriptors. A relative path is looked up
/// from the working directory of that moment, so that should be the one of the construction.
///
/// Hazards of the exact build:
/// - What cannot be removed ends the process, by a std::filesystem::filesystem_error out of the destructor. The
///   hardened build logs it at Error.
/// - A constructor that finds no memory for the path leaves the directory behind.
class HALDEN_CPPUTILS_EXPORT TempDir : protected virtual Log::Logger
{
public:
    /// Joins as std::filesystem::path does: an empty parent stands for the working directory, and an absolute prefix
    /// takes the parent's place.
    ///
    /// @throws std::runtime_error "Cannot create temporary directory."
    TempDir(std::string const& prefix, std::string const& parent);

    TempDir(TempDir const&) = delete;
    TempDir& operator=(TempDir const&) = delete;

    /// Removes the directory with all that is in it, unless it is gone already.
    ~TempDir();

    /// Where the directory is.
    std::string path() const;

private:
    std::filesystem::path path_;
};

}
