#include "Report.h"

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <sstream>
#include <string>
#include <vector>

namespace DeviceService
{

namespace
{

using Histogram = prometheus::ClientMetric::Histogram;

/// All figures at one time.
class Figures
{
public:
    explicit Figures(prometheus::Registry const& registry)
        : families(registry.Collect())
    {
    }

    /// Zero where there are none.
    prometheus::ClientMetric of(std::string const& function, std::string const& metric) const
    {
        for (auto const& family : families)
        {
            for (auto const& figures : family.metric)
            {
                if (family.name == metricsPrefix + metric && figures.label.front().value == function)
                {
                    return figures;
                }
            }
        }
        return {};
    }

private:
    std::vector<prometheus::MetricFamily> const families;
};

/// The bound, in milliseconds, that this part of all values does not exceed, or a dash where there are none.
std::string bound(Histogram const& histogram, double part)
{
    if (histogram.sample_count == 0)
    {
        return "-";
    }
    auto const rank = std::ceil(part * static_cast<double>(histogram.sample_count));
    auto const found =
        std::find_if(histogram.bucket.begin(), histogram.bucket.end(),
                     [rank](auto const& bucket) { return static_cast<double>(bucket.cumulative_count) >= rank; });
    std::ostringstream text;
    text << std::fixed << std::setprecision(2) << found->upper_bound * 1000;
    return text.str();
}

void writeRow(std::ostream& stream, JobRecord const& record, Figures const& figures)
{
    auto const& name = record.name();
    auto const lateness = figures.of(name, "_lateness_seconds").histogram;
    auto const runTime = figures.of(name, "_run_time_seconds").histogram;
    stream << std::left << std::setw(14) << name << std::right << std::setw(7) << record.period().count()
           << std::setw(7) << figures.of(name, "_runs_total").counter.value << std::setw(8)
           << figures.of(name, "_failures_total").counter.value << std::setw(12) << bound(lateness, 0.5)
           << std::setw(10) << bound(lateness, 0.99) << std::setw(10) << bound(lateness, 1) << std::setw(12)
           << bound(runTime, 0.5) << std::setw(10) << bound(runTime, 1) << '\n';
}

}

void writeStatus(std::ostream& stream, std::list<JobRecord> const& records)
{
    char const* separator = "";
    for (JobRecord const& record : records)
    {
        stream << separator << record.name() << ' ' << record.reading();
        separator = " | ";
    }
}

void writeTable(std::ostream& stream, std::list<JobRecord> const& records, prometheus::Registry const& figures)
{
    stream << "\n"
              "                                    ---- late by at most, ms ---  -- run time to, ms -\n"
              "function       period   runs  failed        half      99 %       all        half       all\n";
    Figures const present(figures);
    for (JobRecord const& record : records)
    {
        writeRow(stream, record, present);
    }
}

}
