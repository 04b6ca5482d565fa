#pragma once

#include <log/Logger.h>
#include <utils/Export.h>

#include <string>

namespace Halden::Tavro::Utils
{

/// What a service asks the device about its firmware.
class HALDEN_CPPUTILS_EXPORT FirmwareVersionIfc
{
public:
    virtual ~FirmwareVersionIfc();

    virtual std::string version() const = 0;

    /// What an update must be made for.
    virtual std::string compatibleId() const = 0;
};

/// Asks the device's own commands with popen(3), found in PATH: tavro-fw-version, and rauc status for
/// RAUC_SYSTEM_COMPATIBLE.
///
///     FirmwareVersionTavro firmware;
///     if (!firmware.init()) ... // the log says why
///     firmware.version();
///
/// Threads: init() excludes every other use; afterwards version() and compatibleId() may be called from any thread.
///
/// A command's exit status counts for nothing: whatever it prints is the answer, and only silence is a failure. Of what
/// it prints the first 2047 bytes up to the first NUL are taken, without their newlines, so that several lines become
/// one. Compare the values with what is expected before relying on them. A command that goes on printing is ended by
/// SIGPIPE, or sees its write fail with EPIPE where it, or this process, ignores that signal.
///
/// Hazards of the exact build:
/// A program that another thread starts meanwhile inherits the reading end of the command's
/// pipe, so that a command that goes on printing does not end before that program.
class HALDEN_CPPUTILS_EXPORT FirmwareVersionTavro : public FirmwareVersionIfc, protected virtual Log::Logger
{
public:
    FirmwareVersionTavro();
    ~FirmwareVersionTavro() override;

    /// Runs both commands, one after the other, and blocks until each has ended, without a limit of time. May be called
    /// again; a value that cannot be had stays what it was.
    ///
    /// @return whether both values were had
    bool init();

    /// Empty until init() has had it.
    std::string version() const override;

    /// Empty until init() has had it.
    std::string compatibleId() const override;

protected:
    bool initVersion();
    bool initCompatibleId();

    /// @param command a line for the shell
    /// @return the start of its standard output, without newlines
    /// @throws std::runtime_error "Command failed." when no shell can be started, "Failed to read command output." when
    ///                            nothing was printed
    std::string execGetStdout(std::string const& command);

private:
    std::string version_;
    std::string compatibleId_;
};

}
