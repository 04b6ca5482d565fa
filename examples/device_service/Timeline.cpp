#include "Timeline.h"

#include <algorithm>
#include <iomanip>
#include <string>

namespace DeviceService
{

namespace
{

constexpr double left = 170;
constexpr double right = 1270;
constexpr double width = 1300;
constexpr double top = 70;
constexpr double rowHeight = 48;
constexpr double barHeight = 22;

double toSeconds(Clock::duration duration)
{
    return std::chrono::duration<double>(duration).count();
}

std::string escaped(std::string const& text)
{
    std::string result;
    for (char const letter : text)
    {
        switch (letter)
        {
        case '&':
            result += "&amp;";
            break;
        case '<':
            result += "&lt;";
            break;
        case '>':
            result += "&gt;";
            break;
        default:
            result += letter;
        }
    }
    return result;
}

/// The least of 1, 2, 5, 10, ... seconds that gives at most twelve steps.
double gridStep(double seconds)
{
    double decade = 1;
    while (true)
    {
        for (double const step : {decade, 2 * decade, 5 * decade})
        {
            if (seconds / step <= 12)
            {
                return step;
            }
        }
        decade *= 10;
    }
}

class Drawing
{
public:
    Drawing(std::ostream& stream, std::size_t rows, Clock::time_point begin, Clock::time_point end)
        : stream(stream)
        , begin(begin)
        , seconds(std::max(toSeconds(end - begin), 0.001))
        , bottom(top + rowHeight * static_cast<double>(rows))
    {
    }

    void head(std::string const& strategy)
    {
        stream << std::fixed << std::setprecision(2) << R"(<?xml version="1.0" encoding="UTF-8"?>)" << '\n'
               << R"(<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 )" << width << ' ' << bottom + 90
               << R"(" width=")" << width << R"(" height=")" << bottom + 90 << R"(">)" << '\n'
               << R"(<style>
text { font: 14px sans-serif; fill: #333 }
.title { font-size: 20px; font-weight: bold }
.small { font-size: 12px; fill: #777 }
.middle { text-anchor: middle }
.grid { stroke: #e4e4e4 }
.run { fill: #2b6cb0 }
.failed { fill: #c53030 }
.late { fill: #f0a030 }
</style>
<rect width="100%" height="100%" fill="white"/>
)"
               << R"(<text class="title" x="20" y="36">Executions of the periodic functions: )" << escaped(strategy)
               << "</text>\n";
    }

    void grid()
    {
        double const step = gridStep(seconds);
        for (int line = 0; line * step <= seconds; ++line)
        {
            double const at = left + line * step / seconds * (right - left);
            stream << R"(<line class="grid" x1=")" << at << R"(" x2=")" << at << R"(" y1=")" << top << R"(" y2=")"
                   << bottom << R"("/><text class="middle" x=")" << at << R"(" y=")" << bottom + 20 << R"(">)"
                   << static_cast<int>(line * step) << " s</text>\n";
        }
    }

    void row(JobRecord const& record, std::size_t index)
    {
        double const middle = top + rowHeight * (static_cast<double>(index) + 0.5);
        stream << R"(<text x="20" y=")" << middle << R"(">)" << escaped(record.name())
               << R"(</text><text class="small" x="20" y=")" << middle + 15 << R"(">every )" << record.period().count()
               << " ms</text>\n"
               << R"(<line class="grid" x1=")" << left << R"(" x2=")" << right << R"(" y1=")" << middle << R"(" y2=")"
               << middle << R"("/>)" << '\n';
        for (Run const& run : record.runs())
        {
            bar("late", run.due, run.start, middle - barHeight / 4, barHeight / 2, 0);
            stream << '\n';
            bar(run.failed ? "run failed" : "run", run.start, run.end, middle - barHeight / 2, barHeight, 1.5);
            stream << '\n';
        }
    }

    void foot()
    {
        double const y = bottom + 60;
        legend("run", 170, y, "run, as wide as it took");
        legend("run failed", 400, y, "run that threw");
        legend("late", 570, y, "late: from due to started");
        stream << "</svg>\n";
    }

private:
    double x(Clock::time_point time) const { return left + toSeconds(time - begin) / seconds * (right - left); }

    void bar(char const* kind, Clock::time_point from, Clock::time_point to, double y, double height, double least)
    {
        rectangle(kind, x(from), y, std::max(x(to) - x(from), least), height);
    }

    void rectangle(char const* kind, double x, double y, double length, double height)
    {
        stream << R"(<rect class=")" << kind << R"(" x=")" << x << R"(" y=")" << y << R"(" width=")" << length
               << R"(" height=")" << height << R"("/>)";
    }

    void legend(char const* kind, double x, double y, char const* text)
    {
        // A picture of the mark, under another element's name: every rect of class run is an execution.
        stream << R"(<path class=")" << kind << R"(" d="M)" << x << ' ' << y << R"(h16v-12h-16z"/><text x=")" << x + 24
               << R"(" y=")" << y << R"(">)" << text << "</text>\n";
    }

    std::ostream& stream;
    Clock::time_point const begin;
    double const seconds;
    double const bottom;
};

}

void writeTimeline(std::ostream& stream, std::string const& strategy, std::list<JobRecord> const& records,
                   Clock::time_point begin, Clock::time_point end)
{
    Drawing drawing(stream, records.size(), begin, end);
    drawing.head(strategy);
    drawing.grid();
    std::size_t index = 0;
    for (JobRecord const& record : records)
    {
        drawing.row(record, index++);
    }
    drawing.foot();
}

}
