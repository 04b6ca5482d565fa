// The buffers of the exact build, which are those of the process, and end it where a message does not fit.

#include "files/ValidationMessages.h"

#include "files/ValidationMessagesFixture.h"
#include "support/CallDouble.h"
#include "support/ChildProcess.h"

#include <gmock/gmock.h>

#include <signal.h>

#include <cstdarg>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace
{

std::vector<std::pair<int, std::size_t>> sizeTests; // flag and size of each call
std::vector<char const*> buffers;                   // of each call

}

// No CallDouble, for a va_list is no value that one could record.
extern "C" int __vsprintf_chk(char* buffer, int flag, std::size_t size, char const* format, va_list values)
{
    sizeTests.emplace_back(flag, size);
    buffers.push_back(buffer);
    return Halden::Tavro::TestSupport::systemFunction<decltype(&__vsprintf_chk)>("__vsprintf_chk")(buffer, flag, size,
                                                                                                   format, values);
}

namespace Halden::Tavro::Utils
{

namespace
{

using namespace testing;
using namespace TestSupport;

class ValidationMessagesExactTest : public ValidationMessagesFixture
{
};

// kept: a message is logged whole or not at all
TEST_F(ValidationMessagesExactTest, LongerMessageEndsTheProcess)
{
    for (std::size_t const length : {std::size_t{5000}, std::size_t{100'000}})
    {
        std::string const message(length, 'm');
        for (auto const callback : {errorCallback(), warningCallback()})
        {
            auto const result = runInChild(
                [&]
                {
                    callback(nullptr, "%s", message.c_str());
                    return 0;
                });

            EXPECT_EQ(result.signal, SIGABRT) << length;
            EXPECT_THAT(result.output, StartsWith("*** buffer overflow detected ***: terminated\n")) << length;
        }
    }
}

// kept: as above
TEST_F(ValidationMessagesExactTest, DocumentWithALongValueEndsTheProcess)
{
    validateInvalid(withPort(std::string(4900, 'a')));
    auto const result = runInChild(
        [&]
        {
            validate(withPort(std::string(5000, 'a')));
            return 0;
        });

    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_THAT(result.output, StartsWith("*** buffer overflow detected ***: terminated\n"));
}

// kept: as above
TEST_F(ValidationMessagesExactTest, CLibraryTestsTheSizeOfEveryMessage)
{
    auto const error = errorCallback();
    auto const warning = warningCallback();
    sizeTests.clear();

    error(nullptr, "%s", "short");
    warning(nullptr, "%s", "short");

    EXPECT_THAT(sizeTests, ElementsAre(Pair(1, 5000), Pair(1, 5000)));
}

// kept: the memory that services reckon with
TEST_F(ValidationMessagesExactTest, ErrorsAndWarningsHaveOneBufferEach)
{
    auto const error = errorCallback();
    auto const warning = warningCallback();
    buffers.clear();

    error(nullptr, "%s", "short");
    error(nullptr, "%s", "short");
    warning(nullptr, "%s", "short");
    warning(nullptr, "%s", "short");

    ASSERT_THAT(buffers, SizeIs(4));
    EXPECT_EQ(static_cast<void const*>(buffers[0]), buffers[1]);
    EXPECT_EQ(static_cast<void const*>(buffers[2]), buffers[3]);
    EXPECT_NE(static_cast<void const*>(buffers[0]), buffers[2]);
}

}

}
