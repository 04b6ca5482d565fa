#pragma once

#include <prometheus/metric_family.h>
#include <prometheus/registry.h>

#include <cstdint>
#include <optional>
#include <string>

/// Figures as a scraper finds them. For test programs that list metrics/Figures.cpp among their sources.
namespace Halden::Tavro::TestSupport
{

/// What a registry says of one function in the metric of that name; nothing where it has no such metric.
std::optional<prometheus::ClientMetric> figures(prometheus::Registry const& registry, std::string const& metric,
                                                std::string const& function);

/// The value of a counter or a gauge, which must be there.
double valueOf(prometheus::Registry const& registry, std::string const& metric, std::string const& function);

/// How many values a histogram, which must be there, has in the bucket that ends with that bound.
std::uint64_t countInBucket(prometheus::Registry const& registry, std::string const& metric,
                            std::string const& function, double upperBound);

}
