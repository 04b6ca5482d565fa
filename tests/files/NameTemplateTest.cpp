#include "files/NameTemplate.h"

#include <gmock/gmock.h>

#include <string>

namespace Halden::Tavro::Utils
{

namespace
{

TEST(NameTemplateTest, SixPlaceholdersStandBetweenPrefixAndSuffix)
{
    EXPECT_EQ(nameTemplate("/tmp", "data-", ".h5"), "/tmp/data-XXXXXX.h5");
    EXPECT_EQ(nameTemplate("/tmp", "data-", ""), "/tmp/data-XXXXXX");
    EXPECT_EQ(nameTemplate("/tmp", "", ""), "/tmp/XXXXXX");
}

TEST(NameTemplateTest, DirectoryAndPrefixAreJoinedAsPaths)
{
    EXPECT_EQ(nameTemplate("", "data-", ""), "data-XXXXXX");
    EXPECT_EQ(nameTemplate("", "", ""), "XXXXXX");
    EXPECT_EQ(nameTemplate("/tmp/", "data-", ""), "/tmp/data-XXXXXX");
    EXPECT_EQ(nameTemplate("..", "data-", ""), "../data-XXXXXX");
    EXPECT_EQ(nameTemplate("/tmp", "below/data-", ""), "/tmp/below/data-XXXXXX");
    EXPECT_EQ(nameTemplate("/tmp", "/var/data-", ""), "/var/data-XXXXXX");
}

TEST(NameTemplateTest, SuffixIsTextAndNoPath)
{
    EXPECT_EQ(nameTemplate("/tmp", "data-", "/etc"), "/tmp/data-XXXXXX/etc");
    EXPECT_EQ(nameTemplate("/tmp", "data-", "XXXXXX"), "/tmp/data-XXXXXXXXXXXX");
}

TEST(NameTemplateTest, NothingIsQuoted)
{
    EXPECT_EQ(nameTemplate("a \"b\"", "c\\ d%s", " \""), "a \"b\"/c\\ d%sXXXXXX \"");
}

}

}
