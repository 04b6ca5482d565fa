#include "support/RunExample.h"

#include <utils/Version.h>

#include <gmock/gmock.h>

#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <filesystem>

namespace Halden::Tavro::TestSupport
{

namespace
{

bool makeStandardInput(std::string const& text)
{
    int const file = memfd_create("input", 0);
    bool const filled = write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
                        lseek(file, 0, SEEK_SET) == 0 && dup2(file, STDIN_FILENO) == STDIN_FILENO;
    return filled && (file == STDIN_FILENO || close(file) == 0);
}

}

ChildResult runExample(std::string const& program, std::vector<std::string> const& arguments,
                       ExampleOptions const& options)
{
    return runInChild(
        [&]
        {
            for (auto const& [name, value] : options.environment)
            {
                setenv(name.c_str(), value.c_str(), 1);
            }
            bool const prepared = makeStandardInput(options.input) && (!options.prepare || options.prepare());
            return prepared ? becomeProgram(program, arguments) : 126;
        },
        options.limit);
}

void expectRefusal(std::string const& program, std::vector<BadUse> const& uses)
{
    std::string const name = std::filesystem::path(program).filename();
    for (auto const& [arguments, named] : uses)
    {
        auto const result = runExample(program, arguments);

        EXPECT_EQ(result.exitCode, 2) << named;
        EXPECT_THAT(result.output, testing::MatchesRegex(name + ": [^\n]+\n"));
        EXPECT_THAT(result.output, testing::HasSubstr(named));
    }
}

void expectVersion(std::string const& program)
{
    auto const result = runExample(program, {"--version"});

    std::string const name = std::filesystem::path(program).filename();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output, name + " (haldencpputils) " + Utils::loadedVersion() + '\n');
}

void expectComplaintAboutFullOutput(std::string const& program, std::vector<std::string> const& arguments)
{
    ExampleOptions options;
    options.prepare = [] { return dup2(open("/dev/full", O_WRONLY | O_CLOEXEC), STDOUT_FILENO) == STDOUT_FILENO; };
    auto const result = runExample(program, arguments, options);

    std::string const name = std::filesystem::path(program).filename();
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(result.output, testing::EndsWith(name + ": the standard output cannot be written\n"));
}

}
