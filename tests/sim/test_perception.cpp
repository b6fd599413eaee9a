// The simulated perception services, reached by a plain client over TCP.

#include "shared_robot.h"
#include "sim_test_support.h"

#include <sim/memory_service.h>
#include <sim/people_perception_service.h>
#include <sim/world_representation_service.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <memory>

namespace {

using namespace simtest;

class SimPerception : public test::SharedRobotTest
{
protected:
    static void SetUpTestSuite()
    {
        SharedRobotTest::SetUpTestSuite();
        world().setSceneRunning(false);
        people().setAutoplay(false);
    }
    void SetUp() override
    {
        world().resetWorld();
        people().clear();
        client = connectTo(robot());
    }
    void TearDown() override { client->close().wait(); }

    static sim::WorldRepresentationService &world()
    {
        return *robot().serviceAs<sim::WorldRepresentationService>("VXWorldRepresentation");
    }
    static sim::PeoplePerceptionService &people()
    {
        return *robot().serviceAs<sim::PeoplePerceptionService>("VXPeoplePerception");
    }

    boost::shared_ptr<wz::Session> client;
};

std::vector<float> floats(const wz::AnyValue &list)
{
    std::vector<float> out;
    for (const wz::AnyValue &v : list.toList())
        out.push_back(float(v.toDouble()));
    return out;
}

TEST_F(SimPerception, PositionsComposeThroughTheTreeAndUnknownNamesFailClearly)
{
    sim::WorldPose turned;
    turned.rotation = {std::cos(0.25f * float(M_PI)), 0, 0, std::sin(0.25f * float(M_PI))};
    turned.translation = {0, 1, 0};
    world().addObject("Shelf", "furniture", "World", turned);
    sim::WorldPose onShelf;
    onShelf.translation = {1, 0, 0.5f};
    world().addObject("Book", "object", "Shelf", onShelf);
    world().addObject("Note", "object", "Book");
    wz::Object w = client->service("VXWorldRepresentation").value(10000);

    // Seen from the shelf: as stored. From the world: turned a quarter,
    // then moved. From the cup: the inverse way round.
    const wz::AnyValue fromShelf = w.call<wz::AnyValue>("getPosition", "Book", "Shelf");
    EXPECT_EQ(floats(fromShelf.toList()[1]), std::vector<float>({1, 0, 0.5f}));
    const std::vector<float> fromWorld
        = floats(w.call<wz::AnyValue>("getPosition", "Book", "World").toList()[1]);
    EXPECT_NEAR(fromWorld[0], 0.0f, 1e-5);
    EXPECT_NEAR(fromWorld[1], 2.0f, 1e-5);
    EXPECT_NEAR(fromWorld[2], 0.5f, 1e-5);
    const std::vector<float> bookFromCup
        = floats(w.call<wz::AnyValue>("getPosition", "Book", "Cup").toList()[1]);
    EXPECT_NEAR(bookFromCup[0], -1.1f, 1e-5); // cup at (1.1, 0.2, 0.75) in the world
    EXPECT_NEAR(bookFromCup[1], 1.8f, 1e-5);
    EXPECT_NEAR(bookFromCup[2], -0.25f, 1e-5);

    EXPECT_THROW(
        {
            try {
                w.call<wz::AnyValue>("getPosition", "Book", "");
            } catch (const std::exception &e) {
                EXPECT_STREQ(e.what(), "unknown object \"\"");
                throw;
            }
        },
        std::exception);
    EXPECT_THROW(w.call<std::string>("getObjectCategory", "Nowhere"), std::exception);

    // An object goes with everything on it.
    world().removeObject("Shelf");
    EXPECT_EQ(world().objectNames(), std::vector<std::string>({"Table", "Cup", "Ball"}));
    EXPECT_THROW(world().removeObject("World"), std::runtime_error);
    EXPECT_THROW(world().configure(wz::AnyValue(wz::AnyValue::Map {{"speed", 2}})),
                 std::runtime_error);
}

TEST_F(SimPerception, AttributeValuesKeepAShortHistoryNewestFirst)
{
    wz::Object w = client->service("VXWorldRepresentation").value(10000);
    for (int i = 0; i < 20; ++i)
        world().pushAttributeValues("Ball", "Physics", {float(i), 0.04f});
    const wz::AnyValue two = w.call<wz::AnyValue>("getObjectAttributeValues", "Ball", "Physics", 2);
    ASSERT_EQ(two.toList().size(), 2u);
    EXPECT_EQ(floats(two.toList()[0])[0], 19.0f);
    EXPECT_EQ(floats(two.toList()[1])[0], 18.0f);
    const wz::AnyValue all
        = w.call<wz::AnyValue>("getObjectAttributeValues", "Ball", "Physics", 100);
    EXPECT_EQ(all.toList().size(), sim::WorldRepresentationService::kHistoryDepth);
    EXPECT_THROW(w.call<wz::AnyValue>("getObjectAttributeValues", "Ball", "Smell", 1),
                 std::exception);
}

TEST_F(SimPerception, PeopleComeWithTheirKeyAndGoWithoutItIdsAreNeverReused)
{
    wz::Object p = client->service("VXPeoplePerception").value(10000);
    wz::Object memory = client->service("VXMemory").value(10000);
    // When justArrived reaches a client, the person's key is already there.
    // The last arrival below reaches the callback after the test has
    // returned: what it touches is shared, not on this stack.
    struct Counts
    {
        std::atomic<int> arrivedWithKey {0};
        std::atomic<int> arrivals {0};
    };
    const auto counts = std::make_shared<Counts>();
    std::atomic<int> &arrivedWithKey = counts->arrivedWithKey;
    std::atomic<int> &arrivals = counts->arrivals;
    p.connect("justArrived", [counts, memory](int id) mutable {
         try {
             memory.call<wz::AnyValue>("getData", sim::PeoplePerceptionService::positionKey(id));
             ++counts->arrivedWithKey;
         } catch (const std::exception &) { }
         ++counts->arrivals;
     }).value(10000);
    auto inbox = std::make_shared<Inbox>();
    client->registerService("PeopleModule", makeModule(inbox)).value(10000);
    memory.call<void>("subscribeToEvent", sim::PeoplePerceptionService::kPeopleList, "PeopleModule",
                      "onEvent");

    const int first = people().arrive({1, 2, 3});
    const int second = people().arrive({2, 0, 0});
    ASSERT_TRUE(test::waitUntil([&] { return arrivals == 2; }));
    EXPECT_EQ(arrivedWithKey, 2);
    people().leave(first);
    ASSERT_TRUE(inbox->waitFor(3));
    std::vector<std::vector<int64_t>> lists;
    for (const sim::Args &event : inbox->got()) {
        std::vector<int64_t> ids;
        for (const wz::AnyValue &id : event[1].toList())
            ids.push_back(id.toInt());
        lists.push_back(ids);
    }
    EXPECT_EQ(lists, (std::vector<std::vector<int64_t>> {{first}, {first, second}, {second}}));
    EXPECT_FALSE(robot().memory().hasKey(sim::PeoplePerceptionService::positionKey(first)));
    EXPECT_EQ(floats(memory.call<wz::AnyValue>("getData",
                                               sim::PeoplePerceptionService::positionKey(second))),
              std::vector<float>({2, 0, 0}));

    people().clear();
    EXPECT_GT(people().arrive({0, 0, 0}), second);
    EXPECT_THROW(people().leave(first), std::runtime_error);
    memory.call<void>("unsubscribeToEvent", sim::PeoplePerceptionService::kPeopleList,
                      "PeopleModule");
}

} // namespace
