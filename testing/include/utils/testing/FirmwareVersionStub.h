#pragma once

#include <utils/FirmwareVersionTavro.h>

#include <mutex>
#include <optional>
#include <string>

namespace Halden::Tavro::Utils::Testing
{

/// A device with the firmware that the test sets. An empty text stands for what the device could not tell.
///
///     FirmwareVersionStub firmware;
///     firmware.setVersion("1.2.3");
///
/// Threads: any.
class FirmwareVersionStub : public FirmwareVersionIfc
{
public:
    /// From now on the answer of version().
    void setVersion(std::string text);

    /// From now on the answer of compatibleId().
    void setCompatibleId(std::string text);

    /// @throws std::logic_error when the test has not set one yet
    std::string version() const override;

    /// @throws std::logic_error when the test has not set one yet
    std::string compatibleId() const override;

private:
    mutable std::mutex mutex;
    std::optional<std::string> version_;      // guarded by mutex
    std::optional<std::string> compatibleId_; // guarded by mutex
};

}
