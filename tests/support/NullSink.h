#pragma once

#include <log/Logger.h>

namespace Halden::Tavro::TestSupport
{

/// Takes every record and does nothing with it.
class NullSink : public Log::LoggerImplIfc
{
public:
    void write(Log::Record const& /*record*/) override {}
};

}
