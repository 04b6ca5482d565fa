#include <utils/FileToString.h>

#include "support/CallDouble.h"
#include "support/LogCapture.h"
#include "support/Resources.h"

#include <utils/TempDir.h>

#include <gmock/gmock.h>

#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <ios>
#include <limits>
#include <stdexcept>
#include <string>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace testing;
using namespace TestSupport;
using Log::Severity;

CallDouble<off64_t(int, off64_t, int)> lseekDouble{"lseek64"};
CallDouble<ssize_t(int, void*, size_t)> readDouble{"read"};

}

extern "C"
{

    off64_t lseekOfTest(int descriptor, off64_t offset, int whence) noexcept
    {
        return lseekDouble(descriptor, offset, whence);
    }

    ssize_t read(int descriptor, void* buffer, size_t size)
    {
        return readDouble(descriptor, buffer, size);
    }
}
HALDEN_DOUBLE(lseek64, lseekOfTest)

namespace
{

class FileToStringTest : public Test
{
protected:
    FileToStringTest()
    {
        lseekDouble.reset();
        readDouble.reset();
    }

    ~FileToStringTest() override
    {
        lseekDouble.reset();
        readDouble.reset();
    }

    void write(std::string const& content) const { std::ofstream(path) << content; }

    /// The answer to the question for the file's size, whatever it is; -1 for none.
    static void answerSizeWith(std::int64_t size)
    {
        lseekDouble.replace(
            [size](int descriptor, off64_t offset, int whence)
            {
                errno = ESPIPE;
                return whence == SEEK_SET ? lseekDouble.passOn(descriptor, offset, whence) : size;
            });
    }

    /// Something that happens to the file after its size is known.
    static void onSeekToStart(std::function<void()> const& event)
    {
        lseekDouble.replace(
            [event](int descriptor, off64_t offset, int whence)
            {
                if (whence == SEEK_SET)
                {
                    event();
                }
                return lseekDouble.passOn(descriptor, offset, whence);
            });
    }

    TempDir const directory{"FileToStringTest-", "/tmp"};
    std::string const path = directory.path() + "/file";
    LogCapture log;
};

TEST_F(FileToStringTest, EveryByteComesAsItIs)
{
    std::string content;
    for (int byte = 0; byte < 256; ++byte)
    {
        content += static_cast<char>(byte);
    }
    content += "\r\n\n\r\x1a\n";
    write(content);

    EXPECT_EQ(fileToString(path), content);
}

TEST_F(FileToStringTest, ContentOfAnySizeIsWholeAndFillsTheMemorySetAside)
{
    constexpr std::size_t block = 65536;
    for (std::size_t const size : {block / 8, block - 2, block - 1, block, block + 1, 2 * block - 2, 5 * block})
    {
        std::string content(size, '\0');
        std::generate(content.begin(), content.end(), [i = 0U]() mutable { return static_cast<char>(++i % 251); });
        write(content);

        auto const result = fileToString(path);

        EXPECT_TRUE(result == content) << size;
        EXPECT_EQ(result.capacity(), size);
    }
}

TEST_F(FileToStringTest, HundredMebibytesAreReadOnce)
{
    constexpr std::size_t size = 100UL << 20U;
    write("first");
    std::filesystem::resize_file(path, size - 4);
    std::ofstream(path, std::ios::app) << "last";

    auto const result = fileToString(path);

    ASSERT_EQ(result.size(), size);
    EXPECT_EQ(result.capacity(), size);
    EXPECT_EQ(result.substr(0, 5), "first");
    EXPECT_EQ(result.substr(size - 4), "last");
    EXPECT_EQ(result.find_first_not_of('\0', 5), size - 4);
    EXPECT_LE(readDouble.count(), size / 65535 + 2);
}

TEST_F(FileToStringTest, EmptyFileIsAnEmptyString)
{
    write("");

    EXPECT_EQ(fileToString(path), "");
}

TEST_F(FileToStringTest, MissingFileIsLoggedAndThrown)
{
    auto const expected = isLine(Severity::Error, "", "Failed to read file " + path);
    log.expect(expected);

    EXPECT_THAT([&] { fileToString(path); }, ThrowsMessage<std::runtime_error>("Failed to read file: " + path));
    EXPECT_EQ(log.count(expected), 1U);
}

TEST_F(FileToStringTest, UnreadableFileIsLoggedAndThrown)
{
    auto const expected = isLine(Severity::Error, "", "Failed to read file " + path);
    log.expect(expected);
    write("secret");
    std::filesystem::permissions(path, std::filesystem::perms::none);
    std::filesystem::permissions(directory.path(), std::filesystem::perms::all);
    uid_t const before = geteuid();
    constexpr uid_t nobody = 65534;
    ASSERT_TRUE(before != 0 || seteuid(nobody) == 0);

    EXPECT_THAT([&] { fileToString(path); }, ThrowsMessage<std::runtime_error>("Failed to read file: " + path));

    ASSERT_EQ(seteuid(before), 0);
    EXPECT_EQ(log.count(expected), 1U);
}

TEST_F(FileToStringTest, DirectoryFailsWhileReadingWhateverSizeItClaims)
{
    for (std::int64_t const size :
         {std::int64_t{-1}, std::int64_t{0}, std::int64_t{4096}, std::int64_t{std::numeric_limits<std::int32_t>::max()},
          std::numeric_limits<std::int64_t>::max()})
    {
        answerSizeWith(size);

        EXPECT_THAT([&] { fileToString(directory.path()); },
                    ThrowsMessage<std::ios_base::failure>(HasSubstr("Is a directory")));
    }
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(FileToStringTest, FailureWhileReadingIsThrown)
{
    write(std::string(200'000, 'x'));
    readDouble.failCall(3, -1, EIO);

    EXPECT_THAT([&] { fileToString(path); }, ThrowsMessage<std::ios_base::failure>(HasSubstr("Input/output error")));
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(FileToStringTest, FileWithoutASizeIsReadToItsEnd)
{
    std::string const file = "/proc/self/status";
    ASSERT_EQ(std::ifstream(file).seekg(0, std::ios::end).tellg(), -1);

    EXPECT_THAT(fileToString(file), AllOf(StartsWith("Name:\t"), EndsWith("\n")));
}

TEST_F(FileToStringTest, SysfsFileHasTheBytesThatItHoldsNotThoseItSays)
{
    std::string const file = "/sys/devices/system/cpu/online";
    ASSERT_EQ(std::filesystem::file_size(file), 4096U);

    EXPECT_THAT(fileToString(file), MatchesRegex("[0-9,-]+\n"));
}

TEST_F(FileToStringTest, FileThatGrowsMeanwhileIsReadToItsNewEnd)
{
    write("before ");
    onSeekToStart([this] { std::ofstream(path, std::ios::app) << std::string(100'000, 'x'); });

    EXPECT_EQ(fileToString(path), "before " + std::string(100'000, 'x'));
}

TEST_F(FileToStringTest, FileThatShrinksMeanwhileIsReadToItsNewEnd)
{
    write(std::string(100'000, 'x'));
    onSeekToStart([this] { std::filesystem::resize_file(path, 7); });

    EXPECT_EQ(fileToString(path), std::string(7, 'x'));
}

TEST_F(FileToStringTest, SizeThatNoStringHasIsNotSetAside)
{
    write("short");
    answerSizeWith(std::numeric_limits<std::int64_t>::max());

    EXPECT_EQ(fileToString(path), "short");
}

TEST_F(FileToStringTest, NoDescriptorStaysOpen)
{
    log.expect(isLine(Severity::Error, "", "Failed to read file " + path));
    auto const before = openDescriptors();

    EXPECT_THROW(fileToString(path), std::runtime_error);
    EXPECT_THROW(fileToString(directory.path()), std::ios_base::failure);
    write("content");
    EXPECT_EQ(fileToString(path), "content");

    EXPECT_EQ(openDescriptors(), before);
}

}

}
