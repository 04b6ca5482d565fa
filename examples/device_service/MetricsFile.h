#pragma once

#include <prometheus/registry.h>

#include <string>

namespace DeviceService
{

/// Writes the figures for node_exporter's textfile collector: into a new file beside, which then takes the place of the
/// old one, so that nobody reads half of it.
///
/// @throws std::runtime_error with the path and the reason
void writeMetricsFile(std::string const& path, prometheus::Registry const& registry);

}
