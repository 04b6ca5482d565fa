#include <utils/TempFile.h>

#include "files/MadeAtOnce.h"
#include "files/WorkingDirectory.h"
#include "support/CallDouble.h"
#include "support/LogCapture.h"
#include "support/Resources.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <type_traits>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace testing;
using namespace TestSupport;
using Log::Severity;
using std::filesystem::exists;

char const* const loggerName = "Halden::Tavro::Utils::TempFile";

/// The test runtime closes as well: but for this one, calls go straight to the system.
std::atomic<int> descriptorUnderTest{-1};

CallDouble<int(char*, int)> mkstempsDouble{"mkstemps"};
CallDouble<int(int)> closeDouble{"close"};

}

extern "C"
{

    int mkstempsOfTest(char* name, int suffixLength)
    {
        return mkstempsDouble(name, suffixLength);
    }

    int close(int descriptor)
    {
        return descriptor == descriptorUnderTest ? closeDouble(descriptor) : closeDouble.passOn(descriptor);
    }
}
HALDEN_DOUBLE(mkstemps, mkstempsOfTest)

namespace
{

static_assert(!std::is_copy_constructible_v<TempFile> && !std::is_copy_assignable_v<TempFile>);
static_assert(!std::is_move_constructible_v<TempFile> && !std::is_move_assignable_v<TempFile>);
static_assert(!std::is_convertible_v<TempFile*, Log::Logger*>);
static_assert(!std::is_polymorphic_v<TempFile>);

/// Logger, path and descriptor one after the other: no pointer to a virtual table or base before them.
struct Layout : private Log::Logger
{
    std::filesystem::path path;
    int fileDescriptor;
};
static_assert(sizeof(TempFile) == sizeof(Layout));

/// Each test works in a directory of its own, which is the working directory meanwhile.
class TempFileTest : public Test
{
protected:
    TempFileTest() { reset(); }

    ~TempFileTest() override { reset(); }

    static void reset()
    {
        descriptorUnderTest = -1;
        mkstempsDouble.reset();
        closeDouble.reset();
    }

    WorkingDirectory const workingDirectory;
    std::string const directory = workingDirectory.path();
    LogCapture log;
};

TEST_F(TempFileTest, NameIsDirectoryThenPrefixThenSixCharactersThenSuffix)
{
    TempFile const sut("data-", ".h5", directory);

    std::filesystem::path const path = sut.path();
    EXPECT_EQ(path.parent_path(), directory);
    EXPECT_THAT(path.filename().string(), MatchesRegex("data-[A-Za-z0-9]{6}\\.h5"));
    EXPECT_TRUE(std::filesystem::is_regular_file(sut.path()));
    EXPECT_THAT(mkstempsDouble.calls(), ElementsAre(FieldsAre(_, 3)));
}

TEST_F(TempFileTest, DirectoryAndPrefixAreJoinedAsPathsAndTheSuffixIsText)
{
    std::filesystem::create_directory("a b\"c");
    struct
    {
        std::string prefix;
        std::string suffix;
        std::string directory;
        std::string name;
    } const rows[] = {
        {"bare-", ".h5", "", "bare-"},
        {"", "", "", ""},
        {"data-", "", directory + "/", directory + "/data-"},
        {"data-", "XXXXXX", ".", "./data-"},
        {directory + "/absolute-", ".h5", "/nowhere", directory + "/absolute-"},
        {"", "%s", directory, directory + "/"},
        {"data-", "\" ", "a b\"c", "a b\"c/data-"},
    };
    for (auto const& row : rows)
    {
        TempFile const sut(row.prefix, row.suffix, row.directory);

        std::string const path = sut.path();
        std::size_t const unique = row.name.size() + 6;
        EXPECT_EQ(path.substr(0, row.name.size()), row.name);
        EXPECT_EQ(path.substr(unique), row.suffix);
        EXPECT_TRUE(std::filesystem::is_regular_file(path)) << path;
    }
}

TEST_F(TempFileTest, FileIsForItsOwnerOnly)
{
    mode_t const before = umask(0);

    TempFile const sut("data-", "", directory);

    umask(before);
    EXPECT_EQ(std::filesystem::status(sut.path()).permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

TEST_F(TempFileTest, DescriptorIsOpenForReadingAndWritingTheFile)
{
    TempFile const sut("data-", "", directory);

    ASSERT_GE(sut.fileDescriptor(), 0);
    EXPECT_EQ(fcntl(sut.fileDescriptor(), F_GETFL) & (O_ACCMODE | O_APPEND), O_RDWR);
    EXPECT_EQ(fcntl(sut.fileDescriptor(), F_GETFD), 0) << "inherited by programs, as the header says";
    ASSERT_EQ(write(sut.fileDescriptor(), "abc", 3), 3);
    EXPECT_EQ(std::filesystem::file_size(sut.path()), 3U);
}

TEST_F(TempFileTest, CreationIsTraced)
{
    TempFile const sut("data-", ".h5", directory);

    EXPECT_THAT(log.lines(), ElementsAre(LogLine{Severity::Trace, loggerName,
                                                 "Created file " + sut.path() +
                                                     " (fd = " + std::to_string(sut.fileDescriptor()) + ")"}));
}

// kept: neither full stop nor quotes; who looks for a text knows it as it is
TEST_F(TempFileTest, MissingDirectoryIsLoggedWithItsErrnoAndThrown)
{
    std::string const nowhere = directory + "/nowhere";
    log.expect(Field(&LogLine::logger, loggerName));

    EXPECT_THAT([&] { TempFile("data-", ".h5", nowhere); },
                ThrowsMessage<std::runtime_error>("Cannot create temporary file"));

    EXPECT_THAT(log.lines(), ElementsAre(LogLine{Severity::Error, loggerName,
                                                 "Cannot create temporary file in " + nowhere +
                                                     ", errno is 2: No such file or directory"}));
}

TEST_F(TempFileTest, FailureOfTheSystemIsLoggedWithItsErrnoAndThrown)
{
    mkstempsDouble.failCall(1, -1, EMFILE);
    log.expect(Field(&LogLine::logger, loggerName));
    log.onLine([](auto const&) { errno = EIO; });
    descriptorUnderTest = 0; // the field's first value: nothing must close it

    EXPECT_THAT([] { TempFile("data-", ".h5", "/tmp"); },
                ThrowsMessage<std::runtime_error>("Cannot create temporary file"));

    EXPECT_THAT(log.lines(),
                ElementsAre(LogLine{Severity::Error, loggerName,
                                    "Cannot create temporary file in /tmp, errno is 24: Too many open files"}));
    EXPECT_EQ(closeDouble.count(), 0U);
}

TEST_F(TempFileTest, DescriptorZeroIsAsGoodAsAnyOther)
{
    std::string const path = directory + "/data-000000";
    mkstempsDouble.replace(
        [](char* name, int)
        {
            std::memcpy(name + std::strlen(name) - 6, "000000", 6);
            std::ofstream{name};
            return 0;
        });
    descriptorUnderTest = 0;
    closeDouble.replace([](int) { return 0; });
    {
        TempFile const sut("data-", "", directory);

        EXPECT_EQ(sut.fileDescriptor(), 0);
        EXPECT_EQ(sut.path(), path);
        EXPECT_TRUE(exists(path));
        EXPECT_THAT(log.lines(),
                    ElementsAre(LogLine{Severity::Trace, loggerName, "Created file " + path + " (fd = 0)"}));
    }
    EXPECT_EQ(closeDouble.count(), 1U);
    EXPECT_FALSE(exists(path));
}

TEST_F(TempFileTest, DescriptorIsClosedBeforeTheFileIsRemoved)
{
    bool closedFirst = false;
    auto sut = std::make_unique<TempFile>("data-", "", directory);
    std::string const path = sut->path();
    descriptorUnderTest = sut->fileDescriptor();
    closeDouble.replace(
        [&](int descriptor)
        {
            closedFirst = exists(path);
            return closeDouble.passOn(descriptor);
        });

    sut.reset();

    EXPECT_EQ(closeDouble.count(), 1U);
    EXPECT_TRUE(closedFirst);
    EXPECT_FALSE(exists(path));
}

TEST_F(TempFileTest, FailingCloseGoesUnnoticed)
{
    auto sut = std::make_unique<TempFile>("data-", "", directory);
    std::string const path = sut->path();
    log.clear();
    descriptorUnderTest = sut->fileDescriptor();
    closeDouble.replace(
        [](int descriptor)
        {
            closeDouble.passOn(descriptor);
            errno = EIO;
            return -1;
        });

    sut.reset();

    EXPECT_EQ(closeDouble.count(), 1U);
    EXPECT_FALSE(exists(path));
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(TempFileTest, FileThatIsRemovedAlreadyIsFine)
{
    auto const before = openDescriptors();
    {
        TempFile const sut("data-", "", directory);
        log.clear();

        std::filesystem::remove(sut.path());
    }

    EXPECT_EQ(openDescriptors(), before);
    EXPECT_THAT(log.lines(), IsEmpty());
}

/// The usual one leaves too few beside the runtime's own, so it is raised as far as the process may.
std::size_t descriptorLimit()
{
    rlimit limit{};
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 4096);
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    return static_cast<std::size_t>(limit.rlim_cur);
}

TEST_F(TempFileTest, FilesMadeAtOnceDoNotClash)
{
    std::size_t const perThread = std::min<std::size_t>(125, (descriptorLimit() - openDescriptors() - 8) / 8);
    auto const before = openDescriptors();
    auto made = madeAtOnce(perThread, [this] { return std::make_unique<TempFile>("data-", ".h5", directory); });

    std::set<std::string> paths;
    std::set<int> descriptors;
    for (auto& ofThread : made)
    {
        for (auto const& file : ofThread)
        {
            EXPECT_TRUE(exists(file->path()));
            paths.insert(file->path());
            descriptors.insert(file->fileDescriptor());
        }
        ofThread.clear();
    }
    EXPECT_EQ(paths.size(), made.size() * perThread);
    EXPECT_EQ(descriptors.size(), made.size() * perThread);
    EXPECT_TRUE(std::filesystem::is_empty(directory));
    EXPECT_EQ(openDescriptors(), before);
}

}

}
