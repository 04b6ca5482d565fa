#pragma once

#include <log/Logger.h>

#include <unistd.h>

#include <string>

namespace Halden::Tavro::TestSupport
{

/// Prints a line at once, past all buffers, so that it survives whatever end the process takes.
inline void print(std::string const& line)
{
    std::string const text = line + "\n";
    if (write(STDOUT_FILENO, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
    {
        _exit(1);
    }
}

/// Prints each record at once: "1 [Logger's name] text". For children that do not live to hand their records over.
class PrintingSink : public Log::LoggerImplIfc
{
public:
    void write(Log::Record const& record) override
    {
        print(std::to_string(static_cast<int>(record.severity)) + " [" + std::string(record.logger) + "] " +
              std::string(record.text));
    }
};

}
