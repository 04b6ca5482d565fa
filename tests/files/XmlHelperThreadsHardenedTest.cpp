// Several threads at once, each from its first use of libxml2 on.

#include <utils/XmlHelper.h>

#include "files/TextFile.h"
#include "support/LogCapture.h"

#include <gmock/gmock.h>

#include <cstddef>
#include <future>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace testing;
using namespace TestSupport;

constexpr int threadCount = 8;
constexpr int rounds = 100;

class XmlHelperThreadsHardenedTest : public Test
{
protected:
    /// Runs a piece on eight threads, which begin together; it gets a helper and the number of its thread. Half of them
    /// make the helper then, half have one already.
    template <typename Piece>
    static void onEightThreads(Piece const& piece)
    {
        std::promise<void> start;
        auto const started = start.get_future().share();
        std::vector<std::future<void>> ready;
        std::vector<std::thread> threads;
        for (int number = 0; number < threadCount; ++number)
        {
            std::promise<void> isReady;
            ready.push_back(isReady.get_future());
            threads.emplace_back(
                [&piece, started, number, isReady = std::move(isReady)]() mutable
                {
                    std::optional<XmlHelper> sut;
                    if (number % 2 == 0)
                    {
                        sut.emplace();
                    }
                    isReady.set_value();
                    started.wait();
                    piece(sut.has_value() ? *sut : sut.emplace(), number);
                });
        }
        for (auto const& thread : ready)
        {
            thread.wait();
        }
        start.set_value();
        for (auto& thread : threads)
        {
            thread.join();
        }
    }

    TextFile const xsd{R"(<xs:schema xmlns:xs="http://www.w3.org/2001/XMLSchema">
<xs:element name="device"><xs:complexType>
<xs:sequence><xs:element name="port" type="xs:int"/><xs:element name="name" type="xs:token" minOccurs="0"/></xs:sequence>
</xs:complexType></xs:element></xs:schema>)"};
    LogCapture log;
};

TEST_F(XmlHelperThreadsHardenedTest, EachThreadReadsAndValidatesItsDocuments)
{
    onEightThreads(
        [&](XmlHelper& sut, int number)
        {
            std::string const port = std::to_string(number);
            std::string const document = "<device><port>" + port + "</port><name> n </name></device>";
            for (int i = 0; i < rounds; ++i)
            {
                ASSERT_NO_THROW(sut.validateAgainstXSD(std::stringstream(document), xsd.path()));
                ASSERT_EQ(sut.singleNodeText(std::stringstream(document), "//port"), port);
            }
        });

    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(XmlHelperThreadsHardenedTest, MessagesOfSeveralThreadsDoNotMix)
{
    log.expect(isLine(Log::Severity::Error, "", StartsWith("XML Validation ERROR: ")));
    auto const valueOf = [](int number) { return std::string(3000, static_cast<char>('a' + number)); };

    onEightThreads(
        [&](XmlHelper& sut, int number)
        {
            std::string const document = "<device><port>" + valueOf(number) + "</port></device>";
            for (int i = 0; i < rounds; ++i)
            {
                ASSERT_THROW(sut.validateAgainstXSD(std::stringstream(document), xsd.path()), std::runtime_error);
            }
        });

    EXPECT_THAT(log.lines(), SizeIs(threadCount * rounds));
    for (int number = 0; number < threadCount; ++number)
    {
        auto const quotesTheValue = isLine(Log::Severity::Error, "", HasSubstr("'" + valueOf(number) + "'"));
        EXPECT_EQ(log.count(quotesTheValue), std::size_t{rounds}) << number;
    }
}

}

}
