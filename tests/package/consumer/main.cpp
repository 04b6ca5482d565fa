// A service as others write it: a function called periodically, and a sink of its own for all messages.

#include "../../support/OtherThreads.h"

#include <log/Logger.h>
#include <utils/Hdf5Library.h>
#include <utils/PcmExecutor.h>
#include <utils/PeriodicCallerManager.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>

using namespace Halden::Tavro;
using namespace std::chrono_literals;

namespace
{

class StdoutSink : public Log::LoggerImplIfc
{
public:
    void write(Log::Record const& record) override
    {
        std::printf("[%.*s] %.*s\n", static_cast<int>(record.logger.size()), record.logger.data(),
                    static_cast<int>(record.text.size()), record.text.data());
    }
};

class Service : private Log::Logger
{
public:
    explicit Service(Utils::PeriodicCallerManagerIfc& manager)
        : Logger("Service", "", std::make_shared<Log::LoggerImpl>())
        , token(manager.add([this] { work(); }, 10ms))
    {
    }

    bool awaitThreeCalls()
    {
        registered.set_value();
        bool const came = enough.get_future().wait_for(60s) == std::future_status::ready;
        TestSupport::OtherThreads::awaitRest();
        return came;
    }

private:
    void work()
    {
        if (++calls == 3)
        {
            tavroDoLog(Log::Severity::Info, "call %d of %s", {}, calls, "work");
            registered.get_future().wait();
            token.reset(); // the scheduler has nothing more to wake for
            enough.set_value();
        }
    }

    int calls{0};
    std::promise<void> registered;
    std::promise<void> enough;
    std::unique_ptr<Utils::PeriodicCallerManagerTokenIfc> token;
};

}

int main()
{
    Log::LoggerProxy::instance().setSink(std::make_shared<StdoutSink>());
    auto const manager = std::make_shared<Utils::PeriodicCallerManager>(
        Utils::PeriodicCallerManager::ExecutionStrategy::ThreadPool, "service");
    TestSupport::OtherThreads::awaitRest(); // a request in the moment before the scheduler sleeps may be lost
    bool worked = false;
    {
        Service service(*manager);
        auto const lock = Utils::Hdf5Library::instance().lock(); // works only where HDF5 comes with the library
        worked = service.awaitThreeCalls();
    }

    return worked ? EXIT_SUCCESS : EXIT_FAILURE;
}
