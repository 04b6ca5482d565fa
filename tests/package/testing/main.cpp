// A service's test as others write it, without a test framework.

#include <utils/testing/BarrierGuard.h>
#include <utils/testing/FirmwareVersionStub.h>
#include <utils/testing/LogCapture.h>
#include <utils/testing/ManualTimeManager.h>
#include <utils/testing/SystemTimeHandlerStub.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <stdexcept>

using namespace Halden::Tavro::Utils;
using namespace std::chrono_literals;

int main()
{
    auto const manager = std::make_shared<Testing::ManualTimeManager>();
    Testing::LogCapture const log;
    Testing::SystemTimeHandlerStub systemTime;
    Testing::FirmwareVersionStub firmware;
    CodeMonitor monitor("call");
    systemTime.setAbsoluteTime(true);
    firmware.setVersion("1.2.3");
    int calls = 0;
    auto const token = manager->add(
        [&]
        {
            if (++calls == 60)
            {
                throw std::runtime_error(firmware.version() + (systemTime.hasAbsoluteTime() ? " at last" : ""));
            }
        },
        1s);

    manager->advance(1min);

    bool const isHeld = Testing::BarrierGuard(monitor).waitTrapped(1ms);
    bool const isLogged =
        log.waitFor([](auto const& line) { return line.text.find("1.2.3 at last") != std::string::npos; });
    return calls == 61 && isLogged && !isHeld ? EXIT_SUCCESS : EXIT_FAILURE;
}
