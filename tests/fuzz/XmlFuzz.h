#pragma once

#include <log/Logger.h>

#include "fuzz/Fuzz.h"

#include <libxml/xmlerror.h>

#include <cstddef>

namespace Halden::Tavro::TestSupport
{

/// Documents any longer fill the memory, as their entities are expanded, or make a validation message that does not fit
/// into its buffer, which ends the process.
constexpr std::size_t longestDocument = 2048;

inline void ignore(void* /*data*/, char const* /*format*/, ...) {}

/// Neither the log nor libxml2 says what is wrong with a document.
inline void beQuiet()
{
    Log::LoggerProxy::instance().setThreshold(Log::Severity::Critical);
    xmlSetGenericErrorFunc(nullptr, ignore);
}

}
