// Records the load of the machine into an HDF5 file, while a second thread reads what is there so far.
//
//     record_hdf5 load.h5 --samples 20 --period 100

#include "../support/Files.h"
#include "../support/Hdf5Work.h"
#include "../support/Program.h"

#include <log/Logger.h>
#include <utils/PeriodicCallerManager.h>

#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <future>
#include <iostream>
#include <memory>
#include <numeric>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

using namespace Halden::Tavro;
using Utils::PeriodicCallerManager;
using Clock = std::chrono::steady_clock;

namespace
{

struct Sample
{
    double seconds; ///< since the start of the recording
    double load;
};

double currentLoad()
{
    double load = 0;
    if (getloadavg(&load, 1) != 1)
    {
        throw std::runtime_error("the load is not known");
    }
    return load;
}

/// A file with one growing data set. It is opened for each access: what has been appended is safe whatever happens.
class LoadFile
{
public:
    explicit LoadFile(std::string path)
        : path(std::move(path))
    {
        doHdf5Work(this->path, [this] { create(); });
    }

    void append(Sample const& sample) const
    {
        doHdf5Work(path,
                   [this, &sample]
                   {
                       H5::H5File const file(path, H5F_ACC_RDWR);
                       H5::DataSet const samples = file.openDataSet(name);
                       hsize_t const one = 1;
                       hsize_t const position = count(samples);
                       hsize_t const size = position + one;
                       samples.extend(&size);
                       H5::DataSpace const target = samples.getSpace();
                       target.selectHyperslab(H5S_SELECT_SET, &one, &position);
                       samples.write(&sample, type(), H5::DataSpace(1, &one), target);
                   });
    }

    std::vector<Sample> read() const
    {
        return doHdf5Work(path,
                          [this]
                          {
                              H5::H5File const file(path, H5F_ACC_RDONLY);
                              H5::DataSet const samples = file.openDataSet(name);
                              std::vector<Sample> result(static_cast<std::size_t>(count(samples)));
                              samples.read(result.data(), type());
                              return result;
                          });
    }

private:
    static constexpr char const* name = "samples";

    static H5::CompType type()
    {
        H5::CompType sample(sizeof(Sample));
        sample.insertMember("seconds", HOFFSET(Sample, seconds), H5::PredType::NATIVE_DOUBLE);
        sample.insertMember("load", HOFFSET(Sample, load), H5::PredType::NATIVE_DOUBLE);
        return sample;
    }

    static hsize_t count(H5::DataSet const& samples)
    {
        return static_cast<hsize_t>(samples.getSpace().getSimpleExtentNpoints());
    }

    void create() const
    {
        hsize_t const none = 0;
        hsize_t const unlimited = H5S_UNLIMITED;
        hsize_t const chunk = 256;
        H5::DSetCreatPropList layout;
        layout.setChunk(1, &chunk);
        H5::H5File(path, H5F_ACC_TRUNC).createDataSet(name, type(), H5::DataSpace(1, &none, &unlimited), layout);
    }

    std::string const path;
};

void print(std::vector<Sample> const& samples)
{
    double const sum = std::accumulate(samples.begin(), samples.end(), 0.0,
                                       [](double partial, Sample const& sample) { return partial + sample.load; });
    std::cout << samples.size() << " samples, the load is "
              << (samples.empty() ? 0.0 : sum / static_cast<double>(samples.size())) << " on average" << std::endl;
}

/// The periodic function: appends samples until there are enough.
class Recorder
{
public:
    Recorder(LoadFile const& file, unsigned wanted)
        : file(file)
        , wanted(wanted)
    {
    }

    void sample()
    {
        if (finished)
        {
            return;
        }
        try
        {
            file.append({std::chrono::duration<double>(Clock::now() - start).count(), currentLoad()});
            if (++recorded == wanted)
            {
                finished = true;
                end.set_value();
            }
        }
        catch (...)
        {
            finished = true;
            end.set_exception(std::current_exception()); // the library would only log it
        }
    }

    /// Ready at the end of the recording; holds what has gone wrong.
    std::future<void> finish() { return end.get_future(); }

private:
    LoadFile const& file;
    unsigned const wanted;
    Clock::time_point const start{Clock::now()};
    unsigned recorded{0};
    bool finished{false};
    std::promise<void> end;
};

int record(std::string const& path, unsigned wanted, std::chrono::milliseconds period)
{
    Log::LoggerProxy::instance().setThreshold(Log::Severity::Warning);
    requireWritable(path);
    LoadFile const file(path);
    Recorder recorder(file, wanted);
    auto end = recorder.finish();
    auto const manager =
        std::make_shared<PeriodicCallerManager>(PeriodicCallerManager::ExecutionStrategy::Sequential, "recorder");
    auto token = manager->add([&recorder] { recorder.sample(); }, period);

    auto reader = std::async(std::launch::async,
                             [&]
                             {
                                 while (end.wait_for(5 * period) != std::future_status::ready)
                                 {
                                     print(file.read());
                                 }
                             });
    reader.get();
    end.get();
    token.reset();
    print(file.read());
    return 0;
}

}

int main(int argc, char** argv) // NOLINT(bugprone-exception-escape): may end the program
{
    std::string path;
    unsigned samples = 20;
    unsigned period = 100;
    Program program("Records the load of the machine into an HDF5 file, which is read at the same time.");
    program.option("FILE", path, "The file to write; an old one is replaced").required();
    program.option("--samples", samples, "How many samples to record").range(1, 1'000'000).showDefault();
    program.option("--period", period, "The milliseconds between two samples").range(1, 3'600'000).showDefault();
    return program.run(argc, argv, [&] { return record(path, samples, std::chrono::milliseconds(period)); });
}
