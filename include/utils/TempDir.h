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
    ///
    /// What cannot be removed ends the process: the std::filesystem::filesystem_error leaves the destructor. So before
    /// it runs, let every writer in the directory finish, end every mount below it, and leave its directories writable.
    /// A relative path is looked up from the working directory of that moment, which should be the one of construction.
    ~TempDir();

    std::string path() const;

private:
    std::filesystem::path path_;
};

}
