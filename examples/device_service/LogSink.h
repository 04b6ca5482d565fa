#pragma once

#include <log/Logger.h>

#include <memory>
#include <string>

namespace DeviceService
{

/// Where the log goes: "syslog", "journal", or the path of a file that it is appended to. Null for "stderr", which is
/// where the library writes to by itself.
///
/// @throws std::exception when the file cannot be written
std::shared_ptr<Halden::Tavro::Log::LoggerImplIfc> makeLogSink(std::string const& where);

}
