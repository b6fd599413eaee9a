// World representation, people perception, engagement zones and basic
// awareness against the simulated robot, with its scene and autoplay off so
// that every change is the test's own.

#include "robot_fixture.h"

#include <connection/basic_awareness_interface.h>
#include <connection/engagement_zones_interface.h>
#include <connection/people_perception_interface.h>
#include <connection/world_representation_interface.h>

#include "world_representation_executer_p.h"

#include <QFuture>
#include <QMetaObject>
#include <QTimer>

#include <wz/log.h>

#include <sim/basic_awareness_service.h>
#include <sim/engagement_zones_service.h>
#include <sim/memory_service.h>
#include <sim/people_perception_service.h>
#include <sim/world_representation_service.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <limits>

using namespace std::chrono_literals;

namespace {

template<typename T>
T result(const QFuture<T> &future)
{
    EXPECT_TRUE(test::waitUntil([&] { return future.isFinished(); }));
    return future.result();
}

sim::WorldPose at(float x, float y, float z, float yaw = 0.0f)
{
    sim::WorldPose p;
    p.rotation = {std::cos(yaw / 2), 0.0f, 0.0f, std::sin(yaw / 2)};
    p.translation = {x, y, z};
    return p;
}

class PerceptionTest : public test::RobotTest
{
public:
    static void SetUpTestSuite()
    {
        RobotTest::SetUpTestSuite();
        world().setSceneRunning(false);
        people().setAutoplay(false);
    }

protected:
    void SetUp() override
    {
        RobotTest::SetUp();
        world().resetWorld();
        people().clear();
        zones().resetLimits();
        awareness().track(-1);
    }
    void TearDown() override
    {
        // Before the robot's own check that no client is left.
        EXPECT_TRUE(recorder.disconnectAndWait());
        RobotTest::TearDown();
    }

    static sim::WorldRepresentationService &world()
    {
        return *robot().serviceAs<sim::WorldRepresentationService>("VXWorldRepresentation");
    }
    static sim::PeoplePerceptionService &people()
    {
        return *robot().serviceAs<sim::PeoplePerceptionService>("VXPeoplePerception");
    }
    static sim::EngagementZonesService &zones()
    {
        return *robot().serviceAs<sim::EngagementZonesService>("VXEngagementZones");
    }
    static sim::BasicAwarenessService &awareness()
    {
        return *robot().serviceAs<sim::BasicAwarenessService>("VXBasicAwareness");
    }

    void connect() { ASSERT_TRUE(recorder.connectAndWait(robot())); }

    test::Recorder recorder;
};

// --- world representation -------------------------------------------------

TEST_F(PerceptionTest, PollingFollowsObjectsAndOneStopEndsEveryStart)
{
    connect();
    auto worldRep = recorder.manager->worldRepresentationInterface();
    ASSERT_TRUE(worldRep);
    QList<QStringList> updates;
    QObject context; // in this thread; gone before the lists its slots fill
    QObject::connect(worldRep.get(), &RK::WorldRepresentationInterface::objectsUpdated, &context,
                     [&](const QStringList &names) { updates << names; });

    worldRep->startObjectPolling(20);
    ASSERT_TRUE(test::waitUntil([&] { return !updates.isEmpty(); }));
    EXPECT_EQ(updates.last(), QStringList({"Table", "Cup", "Ball"}));

    world().addObject("Chair", "furniture", "World", at(0, 1, 0));
    ASSERT_TRUE(test::waitUntil([&] { return updates.last().contains("Chair"); }));
    world().removeObject("Table"); // with the cup and the ball on it
    ASSERT_TRUE(test::waitUntil([&] { return updates.last() == QStringList({"Chair"}); }));

    // A failing poll reports an empty world.
    robot().scenario().failMethod("VXWorldRepresentation", "getObjectNames", "model busy");
    ASSERT_TRUE(test::waitUntil([&] { return updates.last().isEmpty(); }));
    robot().scenario().restoreMethod("VXWorldRepresentation", "getObjectNames");
    worldRep->stopObjectPolling();

    // Counted on the executer's own thread: timer ticks and polls.
    RK::WorldRepresentationExecuter *executer = worldRep->executer();
    QTimer *timer = executer->findChild<QTimer *>();
    ASSERT_TRUE(timer);
    std::atomic<int> ticks {0};
    std::atomic<int> polls {0};
    const auto onExecuter = [&](const std::function<void()> &f) {
        QMetaObject::invokeMethod(executer, f, Qt::BlockingQueuedConnection);
    };
    // Connected on the executer's thread, where they run: the counting slots
    // are then made, and called, by one thread only.
    onExecuter([&] {
        QObject::connect(
            timer, &QTimer::timeout, executer, [&] { ++ticks; }, Qt::DirectConnection);
        QObject::connect(
            executer, &RK::WorldRepresentationExecuter::objectsUpdated, executer, [&] { ++polls; },
            Qt::DirectConnection);
    });

    onExecuter([&] { ticks = polls = 0; });
    worldRep->startObjectPolling(10);
    worldRep->startObjectPolling(10);
    ASSERT_TRUE(test::waitUntil([&] { return ticks >= 5; }));
    worldRep->stopObjectPolling();
    onExecuter([] {});
    EXPECT_EQ(polls.load(), 2 * ticks.load());

    onExecuter([&] { ticks = polls = 0; });
    worldRep->startObjectPolling(10);
    ASSERT_TRUE(test::waitUntil([&] { return ticks >= 5; }));
    worldRep->stopObjectPolling();
    onExecuter([] {});
    EXPECT_EQ(polls.load(), ticks.load());
    onExecuter([&] { EXPECT_FALSE(executer->isPolling()); });
}

TEST_F(PerceptionTest, PositionsGoThroughTheTreeAndBadOnesGiveTheDefault)
{
    world().addObject("Shelf", "furniture", "World", at(0, 1, 0, float(M_PI / 2)));
    world().addObject("Book", "object", "Shelf", at(1, 0, 0.5f));
    connect();
    auto worldRep = recorder.manager->worldRepresentationInterface();

    EXPECT_EQ(result(worldRep->rootName()), "World");
    EXPECT_EQ(result(worldRep->objectCategory("Book")), "object");
    const auto relative = result(worldRep->objectPosition("Book"));
    EXPECT_EQ(relative.first, "Shelf");
    EXPECT_TRUE(relative.second.isNear({{1, 0, 0.5f}, {1, 0, 0, 0}}));
    const auto absolute = result(worldRep->objectAbsolutePosition("Book"));
    EXPECT_EQ(absolute.first, "World");
    EXPECT_TRUE(absolute.second.P.isNear({0, 2, 0.5f}))
        << absolute.second.P.x << " " << absolute.second.P.y;
    EXPECT_TRUE(
        absolute.second.Q.isNear(VX::Math::Quaternion::fromAngleAndAxis(M_PI / 2, 0, 0, 1)));

    wz::log::LogCapture log;
    EXPECT_TRUE(result(worldRep->objectCategory("Nowhere")).isEmpty());
    EXPECT_TRUE(log.contains(wz::LogLevel_Error, "desktop.worldrep", "unknown object \"Nowhere\""));

    sim::WorldPose stretched = at(1, 0, 0.5f);
    stretched.rotation = {2, 0, 0, 0};
    world().setPose("Book", stretched);
    const auto refused = result(worldRep->objectPosition("Book"));
    EXPECT_EQ(refused.first, "Shelf");
    EXPECT_TRUE(refused.second.isNear(VX::Math::Displacement()));
    EXPECT_TRUE(log.contains("desktop.worldrep", "Invalid rotation: 2 0 0 0"));

    sim::WorldPose lost = at(1, 0, 0);
    lost.translation[1] = std::numeric_limits<float>::quiet_NaN();
    world().setPose("Book", lost);
    EXPECT_TRUE(result(worldRep->objectPosition("Book")).second.isNear(VX::Math::Displacement()));
    EXPECT_TRUE(log.contains("desktop.worldrep", "invalid position: 1 nan 0"));

    // No root name: the position is asked for in the "" reference.
    robot().scenario().failMethod("VXWorldRepresentation", "getRootName", "model busy");
    const auto rootless = result(worldRep->objectAbsolutePosition("Cup"));
    EXPECT_TRUE(rootless.first.isEmpty());
    EXPECT_TRUE(rootless.second.isNear(VX::Math::Displacement()));
    const auto asked = robot().scenario().calls("VXWorldRepresentation", "getPosition");
    ASSERT_FALSE(asked.empty());
    EXPECT_EQ(asked.back().at(1).toStr(), "");
    EXPECT_TRUE(
        log.contains("desktop.worldrep", "Could not get object Cup position in the reference: "));
}

TEST_F(PerceptionTest, AttributesAndTheDisplayAttribute)
{
    world().addObject("Lamp", "object", "World");
    world().setAttribute("Lamp", "display", {"label"});
    world().pushAttributeValues("Lamp", "display", {"lamp"});
    world().addObject("Sign", "object", "World");
    world().setAttribute("Sign", "DISPLAY", {"label"});
    world().pushAttributeValues("Sign", "DISPLAY", {"sign"});
    connect();
    auto worldRep = recorder.manager->worldRepresentationInterface();

    const auto attributes = result(worldRep->objectAttributes("Ball"));
    ASSERT_EQ(attributes.keys(), QStringList({"Display", "Physics"}));
    EXPECT_EQ(attributes["Display"]["label"], VX::VXValue("ball"));
    EXPECT_EQ(attributes["Physics"]["mass"], VX::VXValue(0.05f));
    const auto display = result(worldRep->objectDisplayAttributes("Ball"));
    EXPECT_EQ(display.keys(), QStringList({"color", "label"}));
    EXPECT_EQ(display["color"], VX::VXValue("red"));

    wz::log::LogCapture log;
    EXPECT_EQ(result(worldRep->objectDisplayAttributes("Lamp"))["label"], VX::VXValue("lamp"));
    EXPECT_TRUE(result(worldRep->objectDisplayAttributes("Sign")).isEmpty());
    EXPECT_TRUE(result(worldRep->objectDisplayAttributes("Cup")).isEmpty());
    EXPECT_TRUE(log.records().empty());

    // One value for two fields: no Display, and only that attribute left out.
    world().pushAttributeValues("Ball", "Display", {"half"});
    EXPECT_TRUE(result(worldRep->objectDisplayAttributes("Ball")).isEmpty());
    EXPECT_EQ(log.find("desktop.worldrep",
                       "The size of the fields and the values of the Display "
                       "attribute do not match.")
                  .size(),
              1u);
    EXPECT_EQ(result(worldRep->objectAttributes("Ball")).keys(), QStringList({"Physics"}));
    EXPECT_TRUE(
        log.contains("desktop.worldrep", "field size (2) and value size (1) do not match."));
}

TEST_F(PerceptionTest, RobotEventsBecomeSignalsAndMalformedOnesAreDropped)
{
    connect();
    auto worldRep = recorder.manager->worldRepresentationInterface();
    QStringList events;
    QObject context; // in this thread; gone before the lists its slots fill
    QObject::connect(worldRep.get(), &RK::WorldRepresentationInterface::attributeChanged, &context,
                     [&](const QString &o, const QString &a, const VX::VXValue &fields) {
                         events << QStringLiteral("attribute %1 %2 %3")
                                       .arg(o, a, QString::fromStdString(fields.toString(0)));
                     });
    QObject::connect(worldRep.get(), &RK::WorldRepresentationInterface::positionChanged, &context,
                     [&](const QString &o, const VX::Math::Displacement &d) {
                         events << QStringLiteral("position %1 %2").arg(o).arg(d.P.x);
                     });
    QObject::connect(worldRep.get(), &RK::WorldRepresentationInterface::objectsDisplayedChanged,
                     &context,
                     [&](const QStringList &names) { events << "displayed " + names.join(","); });
    // The subscriptions are queued on the desktop module's thread: wait until
    // the robot has them before raising anything.
    ASSERT_TRUE(test::waitUntil([] {
        return !robot()
                    .memory()
                    .subscribers(sim::WorldRepresentationService::kPositionChanged)
                    .empty();
    }));

    wz::log::LogCapture log;
    const std::string attributeKey = sim::WorldRepresentationService::kAttributeChanged;
    const std::string positionKey = sim::WorldRepresentationService::kPositionChanged;
    robot().scenario().raiseMicroEvent(attributeKey, 42);
    robot().scenario().raiseMicroEvent(positionKey, wz::AnyValue::List {"Ball", "no pose"});
    robot().scenario().raiseMicroEvent(
        positionKey,
        wz::AnyValue::List {"Ball", wz::AnyValue::List {3.0f, 0.0f, 0.0f, 0.0f},
                            wz::AnyValue::List {0.0f, 0.0f, 0.0f}});
    world().pushAttributeValues("Ball", "Display", {"blue ball", "blue"});
    world().setPose("Ball", at(0.5f, 0, 0.8f));
    world().setDisplayed({"Ball", "Cup"});
    ASSERT_TRUE(test::waitUntil([&] { return events.size() >= 3; }));
    EXPECT_EQ(events,
              QStringList({"attribute Ball Display [\"blue ball\", \"blue\"]", "position Ball 0.5",
                           "displayed Ball,Cup"}));
    EXPECT_EQ(log.find("desktop.worldrep", "data not formatted as expected").size(), 3u);
    EXPECT_EQ(result(worldRep->objectsDisplayed()), QStringList({"Ball", "Cup"}));
}

// --- people perception ----------------------------------------------------

TEST_F(PerceptionTest, PeopleArriveMoveAndLeaveInOrder)
{
    const int early = people().arrive({1.0f, 0.0f, 0.0f});
    people().setRange(4.5f);
    connect();
    auto perception = recorder.manager->peoplePerceptionInterface();
    ASSERT_TRUE(perception);
    ASSERT_TRUE(test::waitUntil([&] {
        return perception->peopleList() == QList<int>({early})
            && perception->maximumDetectionRange() == 4.5f;
    }));

    QStringList events;
    QObject context; // in this thread; gone before the lists its slots fill
    QObject::connect(perception.get(), &RK::PeoplePerceptionInterface::peopleJustArrived, &context,
                     [&](int id) { events << QStringLiteral("arrived %1").arg(id); });
    QObject::connect(perception.get(), &RK::PeoplePerceptionInterface::peopleJustLeft, &context,
                     [&](int id) { events << QStringLiteral("left %1").arg(id); });
    QObject::connect(perception.get(), &RK::PeoplePerceptionInterface::peoplePositionUpdated,
                     &context, [&](int id, const VX::Math::Position3D &p) {
                         events << QStringLiteral("at %1 %2 %3").arg(id).arg(p.x).arg(p.y);
                     });
    QObject::connect(perception.get(), &RK::PeoplePerceptionInterface::maximumDetectionRangeChanged,
                     &context, [&](float r) { events << QStringLiteral("range %1").arg(r); });

    const int second = people().arrive({2.0f, 0.5f, 0.0f});
    const int third = people().arrive({3.0f, 0.0f, 0.0f});
    people().leave(early);
    ASSERT_TRUE(test::waitUntil([&] { return events.size() >= 3; }));
    EXPECT_EQ(perception->peopleList(), QList<int>({second, third}));

    people().move(second, {2.5f, -1.0f, 0.0f});
    perception->requestPeoplePosition(early); // gone: the read fails, and is pruned too
    perception->requestPeoplePosition(second);
    ASSERT_TRUE(test::waitUntil([&] { return events.size() >= 4; }));
    people().setRange(3.0f);
    ASSERT_TRUE(test::waitUntil([&] { return events.size() >= 5; }));
    EXPECT_EQ(
        events,
        QStringList({QStringLiteral("arrived %1").arg(second),
                     QStringLiteral("arrived %1").arg(third), QStringLiteral("left %1").arg(early),
                     QStringLiteral("at %1 2.5 -1").arg(second), "range 3"}));
    EXPECT_EQ(perception->maximumDetectionRange(), 3.0f);
    perception->requestPeoplePosition(third);
    ASSERT_TRUE(test::waitUntil([&] { return events.size() >= 6; }));
    EXPECT_LE(perception->pendingPositionRequests(), 1);
}

TEST_F(PerceptionTest, PeopleListValuesAndSubscription)
{
    connect();
    auto perception = recorder.manager->peoplePerceptionInterface();
    // The slots run on the object's thread; the application may call them.
    const auto setList = [&](const VX::VXValue &v) {
        QMetaObject::invokeMethod(perception.get(), "setPeopleList", Qt::BlockingQueuedConnection,
                                  Q_ARG(VX::VXValue, v));
    };
    setList(VX::VXValue(std::vector<float> {2.9f, 4.0f}));
    EXPECT_EQ(perception->peopleList(), QList<int>({2, 4}));
    setList(VX::VXValue("nobody"));
    EXPECT_TRUE(perception->peopleList().isEmpty());

    QList<VX::Math::Position3D> positions;
    QObject context; // in this thread; gone before the lists its slots fill
    QObject::connect(perception.get(), &RK::PeoplePerceptionInterface::peoplePositionUpdated,
                     &context, [&](int, const VX::Math::Position3D &p) { positions << p; });
    robot().scenario().setKey("PeoplePerception/Person/77/PositionInTorsoFrame",
                              wz::AnyValue::List {1.0f, 2.0f});
    wz::log::LogCapture log;
    perception->requestPeoplePosition(77);
    ASSERT_TRUE(test::waitUntil([&] { return !positions.isEmpty(); }));
    EXPECT_EQ(positions.first(), VX::Math::Position3D());
    EXPECT_TRUE(log.find("desktop.peoplepercept", "").empty());

    const std::string key = RK::PeoplePerceptionInterface::a_peopleListKey;
    perception->unsubscribe(); // never subscribed: no call
    EXPECT_EQ(robot().scenario().callCount("VXMemory", "unsubscribeToEvent"), 0u);
    perception->subscribe();
    EXPECT_TRUE(perception->isSubscribed());
    EXPECT_EQ(robot().memory().subscribers(key), std::vector<std::string>({"VXSartel"}));
    perception->unsubscribe();
    EXPECT_FALSE(perception->isSubscribed());
    EXPECT_TRUE(robot().memory().subscribers(key).empty());
}

TEST_F(PerceptionTest, InterfacesDestroyedWhileFirstReadingsArePendingDropTheAnswers)
{
    robot().scenario().delayMethod("VXPeoplePerception", "getMaximumDetectionRange", 300ms);
    robot().scenario().delayMethod("VXEngagementZones", "getFirstLimitDistance", 300ms);
    // The robot's own answers, counted as they leave (after the delay).
    auto answered = std::make_shared<std::atomic<uint64_t>>(0);
    robot().scenario().replaceMethod(
        "VXPeoplePerception", "getMaximumDetectionRange", [answered](const sim::Args &) {
            ++*answered;
            return wz::AnyValue(
                robot().serviceAs<sim::PeoplePerceptionService>("VXPeoplePerception")->range());
        });
    robot().scenario().replaceMethod(
        "VXEngagementZones", "getFirstLimitDistance", [answered](const sim::Args &) {
            ++*answered;
            return wz::AnyValue(
                robot().serviceAs<sim::EngagementZonesService>("VXEngagementZones")->firstLimit());
        });
    robot().scenario().replaceMethod("VXMemory", "getData", [answered](const sim::Args &args) {
        ++*answered;
        return robot().memory().getData(args.at(0).toStr());
    });
    const auto asked = [] {
        return robot().scenario().callCount("VXPeoplePerception", "getMaximumDetectionRange")
            + robot().scenario().callCount("VXEngagementZones", "getFirstLimitDistance")
            + robot().scenario().callCount("VXMemory", "getData");
    };
    robot().scenario().delayMethod("VXMemory", "getData", 300ms);
    wz::log::LogCapture log;
    connect();
    auto perception = recorder.manager->peoplePerceptionInterface();
    ASSERT_TRUE(perception);
    EXPECT_EQ(perception->maximumDetectionRange(), 3.5f);
    EXPECT_EQ(recorder.manager->engagementZonesInterface()->firstLimit(), 1.5f);
    perception.reset();
    ASSERT_TRUE(recorder.disconnectAndWait());
    // The robot answers late, to nobody.
    ASSERT_TRUE(test::waitUntil([&] {
        return robot().scenario().callCount("VXPeoplePerception", "getMaximumDetectionRange") > 0
            && *answered == asked();
    }));
    EXPECT_TRUE(log.find("desktop.peoplepercept", "").empty());
    for (const auto &r : log.records())
        EXPECT_GT(r.level, wz::LogLevel_Warning) << r.category << ": " << r.message;
}

// --- engagement zones and basic awareness ----------------------------------

TEST_F(PerceptionTest, ZonesAndAwarenessMirrorTheRobot)
{
    awareness().track(5);
    robot().scenario().failMethod("VXEngagementZones", "getLimitAngle", "sensor off");
    wz::log::LogCapture log;
    connect();
    auto zonesIf = recorder.manager->engagementZonesInterface();
    auto awarenessIf = recorder.manager->basicAwarenessInterface();
    ASSERT_TRUE(zonesIf && awarenessIf);
    ASSERT_TRUE(test::waitUntil([&] {
        return zonesIf->firstLimit() == 1.2f && zonesIf->secondLimit() == 2.8f
            && awarenessIf->humanTracked() == 5;
    }));
    EXPECT_EQ(zonesIf->limitAngle(), 45.0f); // its reading failed: the default stays

    // Two services, two roads: their orders are each their own.
    QStringList zoneEvents;
    QList<int> tracked;
    QObject context; // in this thread; gone before the lists its slots fill
    QObject::connect(zonesIf.get(), &RK::EngagementZonesInterface::firstLimitChanged, &context,
                     [&](float v) { zoneEvents << QStringLiteral("first %1").arg(v); });
    QObject::connect(zonesIf.get(), &RK::EngagementZonesInterface::limitAngleChanged, &context,
                     [&](float v) { zoneEvents << QStringLiteral("angle %1").arg(v); });
    QObject::connect(awarenessIf.get(), &RK::BasicAwarenessInterface::humanTrackedChanged, &context,
                     [&](int id) { tracked << id; });
    zones().setFirstLimit(1.2f); // the same value is announced again
    zones().setLimitAngle(30.0f);
    awareness().track(5); // the same id is not
    awareness().track(-1);
    ASSERT_TRUE(test::waitUntil([&] { return zoneEvents.size() >= 2 && !tracked.isEmpty(); }));
    EXPECT_EQ(zoneEvents, QStringList({"first 1.2", "angle 30"}));
    EXPECT_EQ(tracked, QList<int>({-1}));
    EXPECT_EQ(zonesIf->limitAngle(), 30.0f);
    EXPECT_TRUE(log.find("Connection", "").empty());
    EXPECT_TRUE(log.find("con.connection", "EngagementZones").empty());
}

} // namespace
