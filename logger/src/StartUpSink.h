#pragma once

#include <log/Logger.h>

namespace Halden::Tavro::Log
{

/// Writes each record to standard error, with one write(2) for the line.
///
/// Takes no lock, not even one of the C library: a forked child may log whatever the other threads were doing.
class StartUpSink : public LoggerImplIfc
{
public:
    void write(Record const& record) override;
};

}
