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

    /// The version of the firmware.
    virtual std::string version() const = 0;

    /// What an update must be made for.
    virtual std::string compatibleId() const = 0;
};

/// Asks the device's own commands, by popen(3).
///
///     FirmwareVersionTavro firmware;
///     if (firmware.init()) // else the log says why
///     {
///         use(firmware.version());
///     }
///
/// | Value          | Command, found in PATH                              |
/// |----------------|-----------------------------------------------------|
/// | version()      | tavro-fw-version                                    |
/// | compatibleId() | rauc status, of which RAUC_SYSTEM_COMPATIBLE counts |
///
/// Threads: init() must not run at the same time as any other use. Afterwards version() and compatibleId() may be
/// called from any thread.
///
/// Limits:
/// - Whatever a command prints is the answer, whatever its exit status; only silence is a failure. Compare the values
///   with what is expected before relying on them.
/// - Only the first 2047 bytes count, up to the first NUL and without their newlines: several lines become one.
/// - A command that prints more is ended by SIGPIPE. Where it or this process ignores that signal, its write fails with
///   EPIPE instead.
///
/// Hazards of the exact build:
/// - A program that another thread starts meanwhile inherits the reading end of the command's pipe. A command that goes
///   on printing then does not end before that program.
class HALDEN_CPPUTILS_EXPORT FirmwareVersionTavro : public FirmwareVersionIfc, protected virtual Log::Logger
{
public:
    FirmwareVersionTavro();
    ~FirmwareVersionTavro() override;

    /// Runs both commands, one after the other, and waits for their ends without a time limit. May be called again;
    /// where a command fails, its value stays what it was.
    ///
    /// @return whether both commands gave their values
    bool init();

    /// Empty until init() has read it.
    std::string version() const override;

    /// Empty until init() has read it.
    std::string compatibleId() const override;

protected:
    /// The first half of init().
    bool initVersion();

    /// The second half of init().
    bool initCompatibleId();

    /// Runs a command, and waits for its end without a time limit.
    ///
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
