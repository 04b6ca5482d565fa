#include "Report.h"

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <string>

namespace DeviceService
{

namespace
{

/// In milliseconds, least first.
template <typename Measure>
std::vector<double> sorted(std::vector<Run> const& runs, Measure measure)
{
    std::vector<double> values;
    values.reserve(runs.size());
    for (Run const& run : runs)
    {
        values.push_back(std::chrono::duration<double, std::milli>((run.*measure)()).count());
    }
    std::sort(values.begin(), values.end());
    return values;
}

/// The value that this part of all values does not exceed, or a dash where there are none.
std::string percentile(std::vector<double> const& values, double part)
{
    if (values.empty())
    {
        return "-";
    }
    auto const rank = static_cast<std::size_t>(std::ceil(part * static_cast<double>(values.size())));
    std::ostringstream text;
    text << std::fixed << std::setprecision(2) << values[std::max<std::size_t>(rank, 1) - 1];
    return text.str();
}

void writeRow(std::ostream& stream, JobRecord const& record)
{
    auto const runs = record.runs();
    auto const failed = std::count_if(runs.begin(), runs.end(), [](Run const& run) { return run.failed; });
    auto const lateness = sorted(runs, &Run::lateness);
    auto const runTime = sorted(runs, &Run::runTime);
    stream << std::left << std::setw(14) << record.name() << std::right << std::setw(7) << record.period().count()
           << std::setw(7) << runs.size() << std::setw(8) << failed << std::setw(12) << percentile(lateness, 0.5)
           << std::setw(10) << percentile(lateness, 0.99) << std::setw(10) << percentile(lateness, 1) << std::setw(12)
           << percentile(runTime, 0.5) << std::setw(10) << percentile(runTime, 1) << '\n';
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

void writeTable(std::ostream& stream, std::list<JobRecord> const& records)
{
    stream << "\n"
              "                                    ------- late by, ms -------  --- run time, ms ---\n"
              "function       period   runs  failed      median      99 %     worst      median     worst\n";
    for (JobRecord const& record : records)
    {
        writeRow(stream, record);
    }
}

}
