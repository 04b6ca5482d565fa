#include <utils/PcmItem.h>

#include "scheduling/ItemTest.h"

#include <gmock/gmock.h>

#include <stdexcept>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace testing;
using namespace TestSupport;

using Log::Severity;

// kept: an exception counts as logged when its line has been written, and not before
TEST(PcmItemExactTest, ExceptionBesideTheLineOfTheFirstIsAnErrorToo)
{
    EXPECT_THAT(severitiesOfTwoAtOnce([] { throw std::runtime_error("x"); }),
                ElementsAre(Severity::Error, Severity::Error));
    EXPECT_THAT(severitiesOfTwoAtOnce([] { throw 42; }), ElementsAre(Severity::Error, Severity::Error));
}

}

}
