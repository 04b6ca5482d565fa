#include <utils/FileToString.h>
#include <utils/TempFile.h>

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <fstream>
#include <stdexcept>
#include <string>

using namespace Halden::Tavro::Utils;

namespace
{

constexpr std::size_t fileSize = 100UL << 20U;

/// A file of that size, in the page cache.
class LargeFile
{
public:
    LargeFile()
    {
        std::string const block(fileSize / 100, 'x');
        for (int i = 0; i < 100; ++i)
        {
            if (write(file.fileDescriptor(), block.data(), block.size()) != static_cast<ssize_t>(block.size()))
            {
                throw std::runtime_error("No room for " + file.path());
            }
        }
    }

    std::string path() const { return file.path(); }

private:
    TempFile const file{"bench-", "", "/tmp"};
};

/// In bytes; see proc(5) for the fields.
double memory(std::string const& field)
{
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;)
    {
        double kibibytes = 0;
        if (word == field && status >> kibibytes)
        {
            return kibibytes * 1024;
        }
    }
    throw std::runtime_error("No " + field);
}

/// "peak" is the most memory that one call holds.
template <typename Function>
void measure(benchmark::State& state, Function const& function)
{
    LargeFile const file;
    std::ofstream("/proc/self/clear_refs") << "5"; // the peak starts anew
    double const before = memory("VmRSS:");
    for (auto _ : state)
    {
        std::string const content = function(file.path());
        if (content.size() != fileSize)
        {
            throw std::runtime_error("The file was not read in full");
        }
    }
    state.counters["peak"] = memory("VmHWM:") - before;
}

void fileToStringOfLibrary(benchmark::State& state)
{
    measure(state, fileToString);
}
BENCHMARK(fileToStringOfLibrary)->Unit(benchmark::kMillisecond);

std::string readAtOnce(std::string const& path)
{
    int const descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    std::string content(static_cast<std::size_t>(lseek(descriptor, 0, SEEK_END)), '\0');
    ssize_t const count = pread(descriptor, content.data(), content.size(), 0);
    content.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
    close(descriptor);
    return content;
}

void fileToStringByRead(benchmark::State& state)
{
    measure(state, readAtOnce);
}
BENCHMARK(fileToStringByRead)->Unit(benchmark::kMillisecond);

}
