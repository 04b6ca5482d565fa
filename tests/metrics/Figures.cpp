#include "metrics/Figures.h"

#include <stdexcept>

namespace Halden::Tavro::TestSupport
{

std::optional<prometheus::ClientMetric> figures(prometheus::Registry const& registry, std::string const& metric,
                                                std::string const& function)
{
    for (auto const& family : registry.Collect())
    {
        for (auto const& one : family.metric)
        {
            if (family.name == metric && one.label.size() == 1 && one.label.front().name == "function" &&
                one.label.front().value == function)
            {
                return one;
            }
        }
    }
    return std::nullopt;
}

double valueOf(prometheus::Registry const& registry, std::string const& metric, std::string const& function)
{
    auto const found = figures(registry, metric, function).value();
    return metric.rfind("_total") != std::string::npos ? found.counter.value : found.gauge.value;
}

std::uint64_t countInBucket(prometheus::Registry const& registry, std::string const& metric,
                            std::string const& function, double upperBound)
{
    auto const found = figures(registry, metric, function).value();
    std::uint64_t below = 0;
    for (auto const& bucket : found.histogram.bucket)
    {
        if (bucket.upper_bound == upperBound)
        {
            return bucket.cumulative_count - below;
        }
        below = bucket.cumulative_count;
    }
    throw std::out_of_range("no bucket ends with " + std::to_string(upperBound));
}

}
