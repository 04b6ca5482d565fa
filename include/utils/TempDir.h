#pragma once

#include <log/Logger.h>
#include <utils/Export.h>

#include <filesystem>
#include <string>

namespace Halden::Tavro::Utils
{

/// A directory of its own name for as long as the object lives, see mkdtemp(3).
///
///     TempDir const work("export-", "/tmp"); // like /tmp/export-Ab12Cd, for the owner only
///     std::ofstream(work.path() + "/data.csv") << ...
///
/// Threads: any, but the object must outlive every use of its path.
///
/// For the removal at the end to succeed, every writer in the directory has finished, no mount is left below it, and
/// its directories are writable and nest less deep than the process can open descriptors. A relative path is looked up
/// from the working directory of that moment, which should be the one of construction.
///
/// Hazards of the exact build:
/// What cannot be removed ends the process, as the std::filesystem::filesystem_error leaves the destructor; the
/// hardened build logs it at severity Error. A constructor that finds no memory for the path leaves the directory
/// behind.
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

    /// Removes the directory with all that is in it. One that is gone already is fine.
    ~TempDir();

    std::string path() const;

private:
    std::filesystem::path path_;
};

}
