#include <utils/TempDir.h>

#include "files/NameTemplate.h"
#include "log/Log.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace Halden::Tavro::Utils
{

TempDir::TempDir(std::string const& prefix, std::string const& parent)
    : Log::Logger("Halden::Tavro::Utils::TempDir", "", std::make_shared<Log::LoggerImpl>())
{
    std::string name = nameTemplate(parent, prefix, "");
    char const* const created = mkdtemp(name.data());
    if (created == nullptr)
    {
        int const error = errno;
        TAVRO_LOG_TO(*this, Log::Severity::Error, "Cannot create temporary directory in '%s', errno is %d: %s",
                     parent.c_str(), error, strerror(error));
        throw std::runtime_error("Cannot create temporary directory.");
    }
    path_ = created;
    TAVRO_LOG_TO(*this, Log::Severity::Trace, "Created directory %s", path_.c_str());
}

TempDir::~TempDir() // NOLINT(bugprone-exception-escape): wanted, it ends the process
{
    std::filesystem::remove_all(path_);
}

std::string TempDir::path() const
{
    return path_.string();
}

}
