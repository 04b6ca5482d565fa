#pragma once

#include <log/Logger.h>

#include <memory>

namespace Halden::Tavro::Log
{

/// Writes to standard error through spdlog: time in UTC, severity, thread, the Logger's name and the text.
std::shared_ptr<LoggerImplIfc> makeStartUpSink();

}
