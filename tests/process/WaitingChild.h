#pragma once

#include <utils/Execute.h>
#include <utils/Pipe.h>

#include "process/ExecuteFixture.h"

#include <unistd.h>

#include <chrono>
#include <istream>

namespace Halden::Tavro::TestSupport
{

/// A child of this process that lives until it is killed, with its pipes.
class WaitingChild
{
public:
    WaitingChild()
        : id(forkDouble.passOn())
    {
        if (id == 0)
        {
            while (true)
            {
                pause();
            }
        }
    }

    Utils::ExecutionResult getOutput(std::istream const& input,
                                     std::chrono::milliseconds timeout = std::chrono::hours(1))
    {
        return Utils::getAppOutput(stdoutPipe, stdinPipe, id, input, timeout);
    }

    Utils::Pipe stdoutPipe;
    Utils::Pipe stdinPipe;
    pid_t const id;
};

}
