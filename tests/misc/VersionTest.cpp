#include <utils/Version.h>

#include <gmock/gmock.h>

namespace Halden::Tavro::Utils
{

namespace
{

TEST(VersionTest, LoadedLibraryHasTheVersionOfTheHeadersThatItWasBuiltWith)
{
    EXPECT_EQ(std::to_string(HALDEN_CPPUTILS_VERSION_MAJOR) + "." + std::to_string(HALDEN_CPPUTILS_VERSION_MINOR) +
                  "." + std::to_string(HALDEN_CPPUTILS_VERSION_PATCH),
              loadedVersion());
}

TEST(VersionTest, PackageHasTheVersionOfTheHeaders)
{
    EXPECT_EQ(PROJECT_VERSION, loadedVersion());
}

}

}
