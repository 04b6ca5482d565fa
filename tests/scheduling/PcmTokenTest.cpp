#include <utils/PeriodicCallerManager.h>

#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <type_traits>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace testing;

static_assert(!std::is_copy_constructible_v<PcmToken> && !std::is_copy_assignable_v<PcmToken>);
static_assert(std::has_virtual_destructor_v<PeriodicCallerManagerTokenIfc>);
static_assert(std::is_base_of_v<PeriodicCallerManagerTokenIfc, PcmToken>);
static_assert(!std::has_virtual_destructor_v<PcmTokenToManagerIfc>);

using Trail = std::vector<std::string>;

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor" // kept: as the interface; only shared pointers own items
class ItemDouble final : public PcmItemIfc
{
public:
    explicit ItemDouble(Trail& trail)
        : trail(trail)
    {
    }

    ItemDouble(ItemDouble const&) = delete;
    ItemDouble& operator=(ItemDouble const&) = delete;

    ~ItemDouble() { trail.emplace_back("item released"); }

    void execute() override { trail.emplace_back("execute"); }
    bool isDueWithin(std::chrono::milliseconds /*within*/) const override { return false; }
    std::chrono::steady_clock::time_point nextDueTime() const override { return {}; }
    std::chrono::milliseconds period() const override { return {}; }
    void forbidFurtherExecutions() override { trail.emplace_back("forbidFurtherExecutions"); }
    void waitEndOfExecutionIfAny() override { trail.emplace_back("waitEndOfExecutionIfAny"); }

private:
    Trail& trail;
};

class ManagerDouble final : public PcmTokenToManagerIfc
{
public:
    explicit ManagerDouble(Trail& trail)
        : trail(trail)
    {
    }

    ManagerDouble(ManagerDouble const&) = delete;
    ManagerDouble& operator=(ManagerDouble const&) = delete;

    ~ManagerDouble() { trail.emplace_back("manager released"); }

    void remove(std::shared_ptr<PcmItemIfc> const& item) override
    {
        trail.emplace_back("remove");
        removed = item.get();
    }

    PcmItemIfc const* removed{nullptr};

private:
    Trail& trail;
};
#pragma GCC diagnostic pop

TEST(PcmTokenTest, DestructionForbidsRemovesWaitsAndReleasesTheManagerBeforeTheItem)
{
    Trail trail;
    std::unique_ptr<PeriodicCallerManagerTokenIfc> sut =
        std::make_unique<PcmToken>(std::make_shared<ItemDouble>(trail), std::make_shared<ManagerDouble>(trail));

    sut.reset();

    EXPECT_THAT(trail, ElementsAre("forbidFurtherExecutions", "remove", "waitEndOfExecutionIfAny", "manager released",
                                   "item released"));
}

TEST(PcmTokenTest, DestructionRemovesItsOwnItem)
{
    Trail trail;
    auto const item = std::make_shared<ItemDouble>(trail);
    auto const manager = std::make_shared<ManagerDouble>(trail);

    std::make_unique<PcmToken>(item, manager).reset();

    EXPECT_EQ(manager->removed, item.get());
}

TEST(PcmTokenTest, ConstructionTouchesNeitherItemNorManager)
{
    Trail trail;

    PcmToken const sut(std::make_shared<ItemDouble>(trail), std::make_shared<ManagerDouble>(trail));

    EXPECT_THAT(trail, IsEmpty());
}

TEST(PcmTokenTest, HoldsOneReferenceToItemAndManagerUntilItsEnd)
{
    Trail trail;
    auto const item = std::make_shared<ItemDouble>(trail);
    auto const manager = std::make_shared<ManagerDouble>(trail);

    auto sut = std::make_unique<PcmToken>(item, manager);
    long const itemOwners = item.use_count();
    long const managerOwners = manager.use_count();
    sut.reset();

    EXPECT_EQ(itemOwners, 2);
    EXPECT_EQ(managerOwners, 2);
    EXPECT_EQ(item.use_count(), 1);
    EXPECT_EQ(manager.use_count(), 1);
}

}

}
