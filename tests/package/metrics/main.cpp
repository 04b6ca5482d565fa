// A service's figures as others collect them.

#include <utils/metrics/MeasuredManager.h>

#include <prometheus/registry.h>
#include <prometheus/text_serializer.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <utility>

using namespace Halden::Tavro::Utils;
using namespace std::chrono_literals;

namespace
{

class Manager : public PeriodicCallerManagerIfc
{
public:
    std::unique_ptr<PeriodicCallerManagerTokenIfc> add(std::function<void()> added,
                                                       std::chrono::duration<double> /*period*/) override
    {
        function = std::move(added);
        return std::make_unique<PeriodicCallerManagerTokenIfc>();
    }

    std::function<void()> function;
};

}

int main()
{
    auto const manager = std::make_shared<Manager>();
    auto const registry = std::make_shared<prometheus::Registry>();
    Metrics::MeasuredManager measured(manager, registry, "service");
    auto const token = measured.add(
        "work", [] {}, 1s);

    manager->function();

    std::string const text = prometheus::TextSerializer().Serialize(registry->Collect());
    return text.find("service_runs_total{function=\"work\"} 1") != std::string::npos ? EXIT_SUCCESS : EXIT_FAILURE;
}
