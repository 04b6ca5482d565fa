#include <utils/CodeMonitor.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <type_traits>

namespace Halden::Tavro::Utils
{

namespace
{

TEST(RuntimeTypedDataTest, IsEmptyAtFirst)
{
    RuntimeTypedData const data;

    EXPECT_EQ(data.type, RuntimeTypedData::Type::None);
    EXPECT_EQ(data.value.uint64, 0U);
}

TEST(RuntimeTypedDataTest, TypesHaveTheirNumbers)
{
    EXPECT_EQ(static_cast<std::uint32_t>(RuntimeTypedData::Type::None), 0U);
    EXPECT_EQ(static_cast<std::uint32_t>(RuntimeTypedData::Type::Uint64), 1U);
    EXPECT_EQ(static_cast<std::uint32_t>(RuntimeTypedData::Type::Pointer), 2U);
    EXPECT_TRUE((std::is_same_v<std::underlying_type_t<RuntimeTypedData::Type>, std::uint32_t>));
    EXPECT_EQ(sizeof(RuntimeTypedData::Value), 8U);
}

TEST(RuntimeTypedDataTest, AssignmentCopiesValueAndType)
{
    RuntimeTypedData const source{{7}, RuntimeTypedData::Type::Uint64};
    RuntimeTypedData target;

    target = source;

    EXPECT_EQ(target.type, RuntimeTypedData::Type::Uint64);
    EXPECT_EQ(target.value.uint64, 7U);
}

}

}
