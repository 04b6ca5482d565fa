#include <utils/TempFile.h>

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

TempFile::TempFile(std::string const& prefix, std::string const& suffix, std::string const& directory)
    : Log::Logger("Halden::Tavro::Utils::TempFile", "", std::make_shared<Log::LoggerImpl>())
{
    std::string name = nameTemplate(directory, prefix, suffix);
    fileDescriptor_ = mkstemps(name.data(), static_cast<int>(suffix.size()));
    if (fileDescriptor_ == -1)
    {
        TAVRO_LOG_ERRNO_TO(*this, "Cannot create temporary file in %s, errno is %d: %s", directory.c_str());
        throw std::runtime_error("Cannot create temporary file");
    }
    try
    {
        path_ = name;
    }
    catch (std::bad_alloc const&)
    {
        if constexpr (hardened)
        {
            close(fileDescriptor_);
            unlink(name.c_str());
        }
        throw;
    }
    TAVRO_LOG_TO(*this, Log::Severity::Trace, "Created file %s (fd = %d)", path_.c_str(), fileDescriptor_);
}

TempFile::~TempFile() // NOLINT(bugprone-exception-escape): in the exact build
{
    close(fileDescriptor_);
    if constexpr (hardened)
    {
        std::error_code error;
        std::filesystem::remove(path_, error);
        if (error)
        {
            errno = error.value();
            TAVRO_LOG_ERRNO_TO(*this, "Cannot remove temporary file %s, errno is %d: %s", path_.c_str());
        }
    }
    else
    {
        // kept: [undeletable-ends-process] a service that cannot clean up ends, and is restarted
        std::filesystem::remove(path_);
    }
}

std::string TempFile::path() const
{
    return path_.string();
}

int TempFile::fileDescriptor() const
{
    return fileDescriptor_;
}

}
