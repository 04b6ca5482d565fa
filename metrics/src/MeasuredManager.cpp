#include <utils/metrics/MeasuredManager.h>

#include "Utf8.h"

#include <prometheus/check_names.h>
#include <prometheus/counter.h>
#include <prometheus/gauge.h>
#include <prometheus/histogram.h>
#include <prometheus/registry.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <stdexcept>
#include <utility>

namespace Halden::Tavro::Utils::Metrics
{

namespace
{

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::steady_clock;
using std::chrono::system_clock;

prometheus::Histogram::BucketBoundaries const boundaries{0.0001, 0.0002, 0.0005, 0.001, 0.002, 0.005, 0.01, 0.02,
                                                         0.05,   0.1,    0.2,    0.5,   1,     2,     5,    10};

double inSeconds(nanoseconds duration)
{
    return std::chrono::duration<double>(duration).count();
}

/// In whole milliseconds, as the managers take it, and not beyond what any device's clock reaches. With a negative
/// period a function is due again as soon as it has started.
milliseconds toMilliseconds(std::chrono::duration<double> period)
{
    constexpr std::chrono::duration<double> longest = std::chrono::hours(24 * 365 * 100);
    double const seconds = period.count() > 0 ? std::min(period, longest).count() : 0;
    return milliseconds(static_cast<milliseconds::rep>(seconds * 1000.0));
}

/// What is known of one name.
struct Figures
{
    prometheus::Counter& runs;
    prometheus::Counter& failures;
    prometheus::Histogram& lateness;
    prometheus::Histogram& runTime;
    prometheus::Gauge& runningSince;
};

/// The metrics of one prefix, with the figures of each name.
class Families
{
public:
    Families(prometheus::Registry& registry, std::string const& prefix)
        : runs(prometheus::BuildCounter()
                   .Name(prefix + "_runs_total")
                   .Help("Calls of a periodic function that have ended, the failed ones included")
                   .Register(registry))
        , failures(prometheus::BuildCounter()
                       .Name(prefix + "_failures_total")
                       .Help("Calls of a periodic function that ended by an exception")
                       .Register(registry))
        , lateness(prometheus::BuildHistogram()
                       .Name(prefix + "_lateness_seconds")
                       .Help("From the time at which a periodic function was due to the start of its call")
                       .Register(registry))
        , runTime(prometheus::BuildHistogram()
                      .Name(prefix + "_run_time_seconds")
                      .Help("From the start of a periodic function's call to its end")
                      .Register(registry))
        , runningSince(prometheus::BuildGauge()
                           .Name(prefix + "_running_since_timestamp_seconds")
                           .Help("When the present call of a periodic function has started, or 0 when there is none")
                           .Register(registry))
    {
    }

    bool has(prometheus::Labels const& labels) const { return runs.Has(labels); }

    Figures add(prometheus::Labels const& labels)
    {
        return {runs.Add(labels), failures.Add(labels), lateness.Add(labels, boundaries),
                runTime.Add(labels, boundaries), runningSince.Add(labels)};
    }

private:
    prometheus::Family<prometheus::Counter>& runs;
    prometheus::Family<prometheus::Counter>& failures;
    prometheus::Family<prometheus::Histogram>& lateness;
    prometheus::Family<prometheus::Histogram>& runTime;
    prometheus::Family<prometheus::Gauge>& runningSince;
};

}

/// The figures, and who uses which name. Does not own the manager: the manager's thread may be the last to release a
/// function, and this with it.
class MeasuredManager::Book
{
public:
    Book(std::shared_ptr<prometheus::Registry> registry, std::string const& prefix, Clock clock)
        : registry(std::move(registry))
        , clock(std::move(clock))
        , families(*this->registry, prefix)
    {
    }

    steady_clock::time_point now() const { return clock ? clock() : steady_clock::now(); }

    Figures const& take(std::string const& name)
    {
        std::lock_guard const lock(mutex);
        auto found = names.find(name);
        if (found == names.end())
        {
            prometheus::Labels const labels{{"function", name}};
            if (families.has(labels))
            {
                throw std::invalid_argument("The registry has figures of a function named '" + name + "' already");
            }
            found = names.emplace(name, Entry{families.add(labels)}).first;
        }
        if (found->second.isTaken)
        {
            throw std::invalid_argument("There is a function named '" + name + "' already");
        }
        found->second.isTaken = true;
        return found->second.figures;
    }

    void giveBack(std::string const& name)
    {
        std::lock_guard const lock(mutex);
        names.at(name).isTaken = false;
    }

private:
    struct Entry
    {
        Figures figures;
        bool isTaken{false};
    };

    std::shared_ptr<prometheus::Registry> const registry; // owns the families
    Clock const clock;
    std::mutex mutex;
    Families families;                  // guarded by mutex
    std::map<std::string, Entry> names; // guarded by mutex
};

/// A name while it is in use.
class MeasuredManager::TakenName
{
public:
    TakenName(std::shared_ptr<Book> book, std::string name)
        : book(std::move(book))
        , name(std::move(name))
        , figures(this->book->take(this->name))
    {
    }

    TakenName(TakenName const&) = delete;
    TakenName& operator=(TakenName const&) = delete;

    ~TakenName() { book->giveBack(name); }

private:
    std::shared_ptr<Book> const book;
    std::string const name;

public:
    Figures const& figures; // live as long as the book
};

/// One function with what is measured around it. The manager beneath never runs it twice at a time.
class MeasuredManager::Measured
{
public:
    Measured(std::shared_ptr<Book const> book, Figures const& figures, std::function<void()> function,
             milliseconds period)
        : book(std::move(book))
        , figures(figures)
        , function(std::move(function))
        , period(period)
        , due(std::max(this->book->now(), steady_clock::time_point(period)))
    {
    }

    void run()
    {
        steady_clock::time_point const start = book->now();
        // The manager has read the clock a little earlier, but not always by the same: a start may seem to be early.
        figures.lateness.Observe(inSeconds(std::max<nanoseconds>(start - due, nanoseconds::zero())));
        due = start + period;
        figures.runningSince.Set(inSeconds(system_clock::now().time_since_epoch()));
        try
        {
            function();
        }
        catch (...)
        {
            figures.failures.Increment();
            noteEnd(start);
            throw; // the manager logs it
        }
        noteEnd(start);
    }

private:
    void noteEnd(steady_clock::time_point start)
    {
        figures.runTime.Observe(inSeconds(book->now() - start));
        figures.runningSince.Set(0);
        figures.runs.Increment();
    }

    std::shared_ptr<Book const> const book;
    Figures const& figures; // of the book
    std::function<void()> const function;
    milliseconds const period;
    steady_clock::time_point due;
};

class MeasuredManager::Token : public PeriodicCallerManagerTokenIfc
{
public:
    Token(std::unique_ptr<TakenName> name, std::unique_ptr<PeriodicCallerManagerTokenIfc> token)
        : name(std::move(name))
        , token(std::move(token))
    {
    }

private:
    std::unique_ptr<TakenName> const name; // free when the function is gone
    std::unique_ptr<PeriodicCallerManagerTokenIfc> const token;
};

class MeasuredManager::Named : public PeriodicCallerManagerIfc
{
public:
    Named(MeasuredManager measured, std::string name)
        : measured(std::move(measured))
        , name(std::move(name))
    {
    }

    std::unique_ptr<PeriodicCallerManagerTokenIfc> add(std::function<void()> function,
                                                       std::chrono::duration<double> period) override
    {
        return measured.add(name, std::move(function), period);
    }

private:
    MeasuredManager measured;
    std::string const name;
};

namespace
{

void requireUsable(std::string const& name)
{
    if (name.empty())
    {
        throw std::invalid_argument("A function's name must not be empty: Prometheus takes an empty label for none");
    }
    if (!isUtf8(name))
    {
        throw std::invalid_argument("A function's name must be UTF-8: Prometheus refuses all figures otherwise");
    }
}

template <typename Pointer>
Pointer notNull(Pointer pointer, char const* what)
{
    if (pointer == nullptr)
    {
        throw std::invalid_argument(std::string("There must be a ") + what);
    }
    return pointer;
}

std::string const& metricPrefix(std::string const& prefix)
{
    if (!prometheus::CheckMetricName(prefix))
    {
        throw std::invalid_argument("Prometheus refuses names of metrics that begin with '" + prefix + "'");
    }
    return prefix;
}

}

MeasuredManager::MeasuredManager(std::shared_ptr<PeriodicCallerManagerIfc> manager,
                                 std::shared_ptr<prometheus::Registry> registry, std::string const& prefix, Clock clock)
    : manager(notNull(std::move(manager), "manager"))
    , book(std::make_shared<Book>(notNull(std::move(registry), "registry"), metricPrefix(prefix), std::move(clock)))
{
}

std::unique_ptr<PeriodicCallerManagerTokenIfc>
MeasuredManager::add(std::string const& name, std::function<void()> function, std::chrono::duration<double> period)
{
    requireUsable(name);
    auto taken = std::make_unique<TakenName>(book, name);
    auto const measured = std::make_shared<Measured>(book, taken->figures, std::move(function), toMilliseconds(period));
    auto token = manager->add([measured] { measured->run(); }, period);
    return std::make_unique<Token>(std::move(taken), std::move(token));
}

std::shared_ptr<PeriodicCallerManagerIfc> MeasuredManager::named(std::string name) const
{
    requireUsable(name);
    return std::make_shared<Named>(*this, std::move(name));
}

}
