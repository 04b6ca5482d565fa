#include <utils/TempDir.h>

#include "files/MadeAtOnce.h"
#include "files/UnlinkatDouble.h"
#include "files/WorkingDirectory.h"
#include "support/CallDouble.h"
#include "support/LogCapture.h"

#include <gmock/gmock.h>

#include <sys/stat.h>

#include <cerrno>
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

char const* const loggerName = "Halden::Tavro::Utils::TempDir";

CallDouble<char*(char*)> mkdtempDouble{"mkdtemp"};

}

extern "C"
{

    char* mkdtemp(char* name) noexcept
    {
        return mkdtempDouble(name);
    }
}

namespace
{

static_assert(!std::is_copy_constructible_v<TempDir> && !std::is_copy_assignable_v<TempDir>);
static_assert(!std::is_move_constructible_v<TempDir> && !std::is_move_assignable_v<TempDir>);
static_assert(!std::is_convertible_v<TempDir*, Log::Logger*>);
static_assert(!std::has_virtual_destructor_v<TempDir>);

/// Each test works in a directory of its own, which is the working directory meanwhile.
class TempDirTest : public Test
{
protected:
    TempDirTest()
    {
        mkdtempDouble.reset();
        unlinkatDouble.reset();
    }

    ~TempDirTest() override
    {
        mkdtempDouble.reset();
        unlinkatDouble.reset();
    }

    WorkingDirectory const directory;
    std::string const parent = directory.path();
    LogCapture log;
};

TEST_F(TempDirTest, NameIsParentThenPrefixThenSixCharacters)
{
    TempDir const sut("data-", parent);

    std::filesystem::path const path = sut.path();
    EXPECT_EQ(path.parent_path(), parent);
    EXPECT_THAT(path.filename().string(), MatchesRegex("data-[A-Za-z0-9]{6}"));
    EXPECT_TRUE(std::filesystem::is_directory(sut.path()));
    EXPECT_TRUE(std::filesystem::is_empty(sut.path()));
}

TEST_F(TempDirTest, ParentAndPrefixAreJoinedAsPaths)
{
    std::filesystem::create_directory("a b\"c");
    struct
    {
        std::string prefix;
        std::string parent;
        std::string name;
    } const rows[] = {
        {"bare-", "", "bare-"},
        {"", "", ""},
        {"data-", parent + "/", parent + "/data-"},
        {"data-", ".", "./data-"},
        {parent + "/absolute-", "/nowhere", parent + "/absolute-"},
        {"", parent, parent + "/"},
        {"data-", "a b\"c", "a b\"c/data-"},
    };
    for (auto const& row : rows)
    {
        TempDir const sut(row.prefix, row.parent);

        std::string const path = sut.path();
        EXPECT_EQ(path.substr(0, path.size() - 6), row.name);
        EXPECT_TRUE(std::filesystem::is_directory(path)) << path;
    }
}

TEST_F(TempDirTest, DirectoryIsForItsOwnerOnly)
{
    mode_t const before = umask(0);

    TempDir const sut("data-", parent);

    umask(before);
    EXPECT_EQ(std::filesystem::status(sut.path()).permissions(), std::filesystem::perms::owner_all);
}

TEST_F(TempDirTest, PathIsTheOneThatTheSystemReturns)
{
    std::string returned = parent + "/returned";
    std::filesystem::create_directory(returned);
    mkdtempDouble.replace([&returned](char*) { return returned.data(); });

    EXPECT_EQ(TempDir("data-", parent).path(), returned);
    EXPECT_FALSE(std::filesystem::exists(returned));
}

TEST_F(TempDirTest, CreationIsTraced)
{
    TempDir const sut("data-", parent);

    EXPECT_THAT(log.lines(), ElementsAre(LogLine{Severity::Trace, loggerName, "Created directory " + sut.path()}));
}

// kept: the full stop, and the quotes in the log; who looks for a text knows it as it is
TEST_F(TempDirTest, MissingParentIsLoggedWithItsErrnoAndThrown)
{
    std::string const nowhere = parent + "/nowhere";
    log.expect(Field(&LogLine::logger, loggerName));

    EXPECT_THAT([&] { TempDir("data-", nowhere); },
                ThrowsMessage<std::runtime_error>("Cannot create temporary directory."));

    EXPECT_THAT(log.lines(), ElementsAre(LogLine{Severity::Error, loggerName,
                                                 "Cannot create temporary directory in '" + nowhere +
                                                     "', errno is 2: No such file or directory"}));
}

TEST_F(TempDirTest, FailureOfTheSystemIsLoggedWithItsErrnoAndThrown)
{
    mkdtempDouble.failCall(1, nullptr, ENOSPC);
    log.expect(Field(&LogLine::logger, loggerName));
    log.onLine([](auto const&) { errno = EIO; });

    EXPECT_THAT([] { TempDir("data-", "/tmp"); },
                ThrowsMessage<std::runtime_error>("Cannot create temporary directory."));

    EXPECT_THAT(log.lines(), ElementsAre(LogLine{
                                 Severity::Error, loggerName,
                                 "Cannot create temporary directory in '/tmp', errno is 28: No space left on device"}));
    EXPECT_EQ(unlinkatDouble.count(), 0U);
}

TEST_F(TempDirTest, WholeTreeIsRemovedAndNothingElse)
{
    std::ofstream("stays") << "content";
    {
        TempDir const sut("data-", parent);
        std::filesystem::path deep = sut.path();
        for (int level = 0; level < 40; ++level) // the removal holds a descriptor for each
        {
            deep /= "level";
            std::filesystem::create_directory(deep);
            std::ofstream(deep / "file") << "content";
        }
        std::filesystem::create_symlink(parent + "/stays", deep / "link");
        std::filesystem::create_directory_symlink(parent, deep / "link to a directory");
        std::filesystem::create_symlink("nowhere", deep / "dangling");
    }

    std::set<std::string> left;
    for (auto const& entry : std::filesystem::directory_iterator(parent))
    {
        left.insert(entry.path().filename());
    }
    EXPECT_THAT(left, ElementsAre("stays"));
    EXPECT_EQ(std::filesystem::file_size("stays"), 7U);
}

TEST_F(TempDirTest, DirectoryThatIsGoneAlreadyIsFine)
{
    {
        TempDir const sut("data-", parent);
        log.clear();

        std::filesystem::remove(sut.path());
    }

    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(TempDirTest, DirectoriesMadeAtOnceDoNotClash)
{
    auto made = madeAtOnce(125, [this] { return std::make_unique<TempDir>("data-", parent); });

    std::set<std::string> paths;
    for (auto& ofThread : made)
    {
        for (auto const& directory : ofThread)
        {
            EXPECT_TRUE(exists(directory->path()));
            paths.insert(directory->path());
        }
        ofThread.clear();
    }
    EXPECT_EQ(paths.size(), 1000U);
    EXPECT_TRUE(std::filesystem::is_empty(parent));
}

/// The most derived class names the logger, and logs by it: the base is virtual and protected.
class NamedDirectory : public TempDir
{
public:
    explicit NamedDirectory(std::string const& parent)
        : Log::Logger("named", "", std::make_shared<Log::LoggerImpl>())
        , TempDir("data-", parent)
    {
        tavroDoLog(Severity::Info, "ready", {});
    }
};

TEST_F(TempDirTest, DerivedClassGivesTheLogger)
{
    NamedDirectory const sut(parent);

    EXPECT_THAT(log.lines(), ElementsAre(LogLine{Severity::Trace, "named", "Created directory " + sut.path()},
                                         LogLine{Severity::Info, "named", "ready"}));
}

}

}
