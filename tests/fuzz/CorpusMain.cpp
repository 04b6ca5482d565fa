// Runs a fuzzer's function over the files of the given folders, for machines without libFuzzer.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

namespace
{

void feed(std::filesystem::path const& path)
{
    std::printf("%s\n", path.c_str());
    std::fflush(stdout); // so that it is seen which one has broken something
    std::ifstream file(path, std::ios::binary);
    std::vector<char> const bytes{std::istreambuf_iterator(file), {}};
    // A block that ends with the input, so that a sanitizer sees reads past it.
    std::vector<std::uint8_t> const input(bytes.begin(), bytes.end());
    LLVMFuzzerTestOneInput(input.data(), input.size());
}

}

int main(int count, char** arguments)
{
    int inputs = 0;
    for (int i = 1; i < count; ++i)
    {
        for (auto const& entry : std::filesystem::directory_iterator(arguments[i]))
        {
            feed(entry.path());
            ++inputs;
        }
    }
    std::printf("%d inputs\n", inputs);
    return inputs > 0 ? 0 : 1;
}
