#pragma once

#include <utils/Execute.h>
#include <utils/FirmwareVersionTavro.h>
#include <utils/TempDir.h>

#include "support/CallDouble.h"
#include "support/LogCapture.h"

#include <gmock/gmock.h>

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace Halden::Tavro::TestSupport
{

inline char const* const loggerName = "Halden::Tavro::Utils::FirmwareVersionTavro";
inline std::string const versionCommand = "tavro-fw-version";
inline std::string const compatibleIdCommand =
    R"(rauc status --output-format=shell | grep RAUC_SYSTEM_COMPATIBLE | cut -f2 -d\')";

extern CallDouble<std::FILE*(char const*, char const*)> popenDouble;
extern CallDouble<std::size_t(void*, std::size_t, std::size_t, std::FILE*)> freadDouble;
extern CallDouble<int(std::FILE*)> pcloseDouble;

/// What happens around one stream, in order: calls of the system with their values, and log lines.
extern std::vector<std::string> calls;

/// Opens the steps to the tests.
class Steps : public Utils::FirmwareVersionTavro
{
public:
    using FirmwareVersionTavro::execGetStdout;
    using FirmwareVersionTavro::initCompatibleId;
    using FirmwareVersionTavro::initVersion;

    Steps()
        : Log::Logger("steps", "", std::make_shared<Log::LoggerImpl>())
    {
    }
};

/// Gives the device's commands as scripts, found first in PATH.
///
/// For test programs that list process/FirmwareFixture.cpp among their sources.
class FirmwareFixture : public testing::Test
{
protected:
    FirmwareFixture()
    {
        reset();
        setenv("PATH", (commands.path() + ":" + pathBefore).c_str(), 1);
    }

    ~FirmwareFixture() override
    {
        setenv("PATH", pathBefore.c_str(), 1);
        reset();
    }

    static void reset()
    {
        popenDouble.reset();
        freadDouble.reset();
        pcloseDouble.reset();
        calls.clear();
    }

    void giveCommand(std::string const& name, std::string const& script) const
    {
        auto const file = std::filesystem::path(commands.path()) / name;
        std::ofstream(file) << "#!/bin/sh\n" << script << '\n';
        std::filesystem::permissions(file, std::filesystem::perms::owner_all);
    }

    void giveBoth() const
    {
        giveCommand("tavro-fw-version", "echo 1.2.3");
        giveCommand("rauc", R"(test "$*" = "status --output-format=shell" || exit 1
            echo "RAUC_SYSTEM_VARIANT='rev-b'"
            echo "RAUC_SYSTEM_COMPATIBLE='board-x'"
            echo "RAUC_BOOT_PRIMARY='rootfs.0'")");
    }

    /// Of the shell: octal escapes.
    static std::string printfCommand(std::string const& output)
    {
        std::string command = "printf '";
        for (char const byte : output)
        {
            char escaped[8]{};
            static_cast<void>(std::snprintf(escaped, sizeof escaped, "\\%03o", static_cast<unsigned char>(byte)));
            command += escaped;
        }
        return command + "'";
    }

    /// What a program finds open that runs on its own, and one that runs while the command's output is read.
    struct OpenInPrograms
    {
        std::string before;
        std::string during;
    };

    static OpenInPrograms openInProgramsWhileReading(std::string const& command)
    {
        auto const list = []
        {
            std::istringstream const input;
            return Utils::execute("/bin/ls", {"/proc/self/fd"}, {}, input, std::chrono::minutes(1)).output;
        };
        OpenInPrograms open{list(), {}};
        freadDouble.replace(
            [&](void* buffer, std::size_t size, std::size_t count, std::FILE* file)
            {
                open.during = list();
                return freadDouble.passOn(buffer, size, count, file);
            });
        Steps().execGetStdout(command);
        return open;
    }

    void expectFailure(std::string const& logger, std::string const& text)
    {
        log.expect(isLine(Log::Severity::Error, logger, text));
    }

    Utils::TempDir const commands{"FirmwareVersionTavroTest-", std::filesystem::temp_directory_path()};
    std::string const pathBefore = std::getenv("PATH");
    LogCapture log;
};

}
