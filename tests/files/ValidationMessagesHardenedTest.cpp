// The buffers of the hardened build, one for each message, to which it is cut.

#include "files/ValidationMessages.h"

#include "files/LibXmlFaults.h"
#include "files/ValidationMessagesFixture.h"

#include <gmock/gmock.h>

#include <cstddef>
#include <string>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace testing;
using namespace TestSupport;

class ValidationMessagesHardenedTest : public ValidationMessagesFixture
{
};

TEST_F(ValidationMessagesHardenedTest, LongerMessageIsCutTo4999Characters)
{
    for (std::size_t const length : {std::size_t{5000}, std::size_t{100'000}})
    {
        std::string const message = std::string(4999, 'm') + std::string(length - 4999, 'n');
        auto const error = errorCallback();
        auto const warning = warningCallback();
        log.clear();

        error(nullptr, "%s", message.c_str());
        warning(nullptr, "%s", message.c_str());

        std::string const whatFits(4999, 'm');
        EXPECT_THAT(log.lines(), ElementsAre(isLine(Log::Severity::Error, "", "XML Validation ERROR: " + whatFits),
                                             isLine(Log::Severity::Error, "", "XML Validation Warning: " + whatFits)));
    }
}

TEST_F(ValidationMessagesHardenedTest, DocumentWithALongValueIsInvalidLikeAnyOther)
{
    std::string const value(100'000, 'a');
    auto const faults = libXmlFaults(withPort(value), xsdFile.path());
    ASSERT_THAT(faults, SizeIs(1));
    log.clear();

    validateInvalid(withPort(value));

    EXPECT_THAT(log.lines(),
                ElementsAre(isLine(Log::Severity::Error, "", "XML Validation ERROR: " + faults[0].substr(0, 4999))));
}

TEST_F(ValidationMessagesHardenedTest, MessageThatCannotBeFormattedIsEmpty)
{
    auto const error = errorCallback();

    error(nullptr, "price: %ls", L"\u20ac"); // not a character of the "C" locale

    EXPECT_THAT(log.lines(), ElementsAre(isLine(Log::Severity::Error, "", "XML Validation ERROR: ")));
}

}

}
