#include <utils/FirmwareVersionTavro.h>

#include "build/Hardened.h"
#include "log/Log.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <exception>
#include <memory>
#include <stdexcept>

namespace Halden::Tavro::Utils
{

namespace
{

// For popen(3), with close-on-exec or without.
// kept: [firmware-pipe-inherited] "r", programs of other threads inherit the pipe
constexpr char const* readMode = hardened ? "re" : "r";

}

FirmwareVersionIfc::~FirmwareVersionIfc() = default;

FirmwareVersionTavro::FirmwareVersionTavro()
    : Log::Logger("Halden::Tavro::Utils::FirmwareVersionTavro", "", std::make_shared<Log::LoggerImpl>())
{
}

FirmwareVersionTavro::~FirmwareVersionTavro() = default;

bool FirmwareVersionTavro::init()
{
    bool const hasVersion = initVersion();
    bool const hasCompatibleId = initCompatibleId(); // whatever became of the version
    return hasVersion && hasCompatibleId;
}

bool FirmwareVersionTavro::initVersion()
{
    try
    {
        version_ = execGetStdout("tavro-fw-version");
        return true;
    }
    catch (std::exception const&)
    {
        return false; // the log has the reason
    }
}

bool FirmwareVersionTavro::initCompatibleId()
{
    try
    {
        // The shell takes the backslash away: cut gets a single quote as its delimiter.
        compatibleId_ =
            execGetStdout("rauc status --output-format=shell | grep RAUC_SYSTEM_COMPATIBLE | cut -f2 -d\\'");
        return true;
    }
    catch (std::exception const&)
    {
        return false; // the log has the reason
    }
}

std::string FirmwareVersionTavro::execGetStdout(std::string const& command)
{
    TAVRO_LOG_TO(*this, Log::Severity::Debug, "executing cmd '%s'", command.c_str());
    std::FILE* const output =
        popen(command.c_str(), readMode); // NOLINT(cert-env33-c): the command is meant for the shell
    if (output == nullptr)
    {
        TAVRO_LOG_TO(*this, Log::Severity::Error, "Failed to execute the command '%s'", command.c_str());
        throw std::runtime_error("Command failed.");
    }

    std::array<char, 2048> buffer{};
    std::size_t const count = std::fread(buffer.data(), 1, buffer.size() - 1, output);
    static_cast<void>(pclose(output)); // kept: [firmware-status-ignored] the command's exit status counts for nothing
    TAVRO_LOG_TO(*this, Log::Severity::Debug, "read %u bytes from it's stdout", static_cast<unsigned>(count));
    if (count == 0)
    {
        TAVRO_LOG_TO(*this, Log::Severity::Error, "Failed to read the output of command '%s'.", command.c_str());
        throw std::runtime_error("Failed to read command output.");
    }
    buffer.at(count) = '\0';
    TAVRO_LOG_TO(*this, Log::Severity::Debug, "read from stdout: %s", buffer);

    std::string text(buffer.data());
    text.erase(std::remove(text.begin(), text.end(), '\n'), text.end());
    return text;
}

std::string FirmwareVersionTavro::version() const
{
    return version_;
}

std::string FirmwareVersionTavro::compatibleId() const
{
    return compatibleId_;
}

}
