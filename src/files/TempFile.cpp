#include <utils/TempFile.h>

#include "files/NameTemplate.h"
#include "log/Log.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <utility>

namespace Halden::Tavro::Utils
{

TempFile::TempFile(std::string const& prefix, std::string const& suffix, std::string const& directory)
    : Log::Logger("Halden::Tavro::Utils::TempFile", "", std::make_shared<Log::LoggerImpl>())
{
    std::string name = nameTemplate(directory, prefix, suffix);
    fileDescriptor_ = mkstemps(name.data(), static_cast<int>(suffix.size()));
    if (fileDescriptor_ == -1)
    {
        int const error = errno;
        TAVRO_LOG_TO(*this, Log::Severity::Error, "Cannot create temporary file in %s, errno is %d: %s",
                     directory.c_str(), error, strerror(error));
        throw std::runtime_error("Cannot create temporary file");
    }
    path_ = std::move(name);
    TAVRO_LOG_TO(*this, Log::Severity::Trace, "Created file %s (fd = %d)", path_.c_str(), fileDescriptor_);
}

TempFile::~TempFile() // NOLINT(bugprone-exception-escape): wanted, it ends the process
{
    close(fileDescriptor_);
    std::filesystem::remove(path_);
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
