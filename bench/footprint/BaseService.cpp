// What Service.cpp is compared with: one function on a thread, spdlog, and nothing of the library.

#include "Start.h"

#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <future>
#include <thread>

int main()
{
    reachedMain();
    auto const logger = spdlog::stderr_logger_mt("service");
    std::promise<void> called;
    std::thread thread(
        [&]
        {
            logger->info("+thread: starting");
            called.set_value();
        });
    called.get_future().wait();
    printCost();
    thread.join();
}
