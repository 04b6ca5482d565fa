#include <utils/TempDir.h>

#include "build/Hardened.h"
#include "files/NameTemplate.h"
#include "log/LogErrno.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <new>
#include <stdexcept>
#include <system_error>

namespace Halden::Tavro::Utils
{

TempDir::TempDir(std::string const& prefix, std::string const& parent)
    : Log::Logger("Halden::Tavro::Utils::TempDir", "", std::make_shared<Log::LoggerImpl>())
{
    std::string name = nameTemplate(parent, prefix, "");
    char const* const created = mkdtemp(name.data());
    if (created == nullptr)
    {
        TAVRO_LOG_ERRNO_TO(*this, "Cannot create temporary directory in '%s', errno is %d: %s", parent.c_str());
        throw std::runtime_error("Cannot create temporary directory.");
    }
    try
    {
        path_ = created;
    }
    catch (std::bad_alloc const&)
    {
        if constexpr (hardened)
        {
            rmdir(created);
        }
        throw;
    }
    TAVRO_LOG_TO(*this, Log::Severity::Trace, "Created directory %s", path_.c_str());
}

TempDir::~TempDir() // NOLINT(bugprone-exception-escape): in the exact build
{
    if constexpr (hardened)
    {
        std::error_code error;
        try
        {
            std::filesystem::remove_all(path_, error);
        }
        catch (std::bad_alloc const&) // it takes memory to look for what is to be removed
        {
            error = std::make_error_code(std::errc::not_enough_memory);
        }
        if (error)
        {
            errno = error.value();
            TAVRO_LOG_ERRNO_TO(*this, "Cannot remove temporary directory '%s', errno is %d: %s", path_.c_str());
        }
    }
    else
    {
        // kept: [undeletable-ends-process] a service that cannot clean up ends, and is restarted
        std::filesystem::remove_all(path_);
    }
}

std::string TempDir::path() const
{
    return path_.string();
}

}
