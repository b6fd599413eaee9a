// Behaviour lists, events, the instance's state machine and autonomous life,
// against the simulated robot.
#include "behavior_fixture.h"

#include <sim/memory_service.h>

#include <QSignalSpy>

using namespace test;
using State = RK::BehaviorInstanceManager::State;
using RK::BehaviorInstanceManager;

namespace {

TEST(PreloadError, SplitsIntoBoxAndError)
{
    using P = QPair<QString, QString>;
    auto parse = &BehaviorInstanceManager::parsePreloadError;
    EXPECT_EQ(parse("only a first line"), P());
    EXPECT_EQ(parse("first\nno colon here"), P(QString(), "no colon here"));
    EXPECT_EQ(parse("first\n Say : it: broke: twice\n(From : x)\n\t\tat y\n\nmore"),
              P("Say", " it: broke: twice\nmore"));
}

TEST(BehaviorNames, CompareWithOrWithoutTheUserPrefix)
{
    EXPECT_TRUE(BehaviorInstanceManager::sameBehavior("User/wave", "wave"));
    EXPECT_TRUE(BehaviorInstanceManager::sameBehavior("wave", "User/wave"));
    EXPECT_FALSE(BehaviorInstanceManager::sameBehavior("Other/wave", "wave"));
    EXPECT_FALSE(BehaviorInstanceManager::sameBehavior("my/User/wave", "wave"));
}

class BehaviorManagerTest : public BehaviorTest
{
};

TEST_F(BehaviorManagerTest, ListsNamesAndEventsReachTheApplication)
{
    connect();
    auto b = manager()->behaviorManagerInterface();
    ASSERT_TRUE(b);
    QSignalSpy received(b.get(), &RK::BehaviorManagerInterface::behaviorsReceived);
    QSignalSpy present(b.get(), &RK::BehaviorManagerInterface::behaviorPresent);
    QSignalSpy running(b.get(), &RK::BehaviorManagerInterface::runningBehaviorsUpdated);
    QSignalSpy defaults(b.get(), &RK::BehaviorManagerInterface::defaultBehaviorsReceived);
    QSignalSpy libraries(b.get(), &RK::BehaviorManagerInterface::installedBoxLibrariesReceived);
    QSignalSpy added(b.get(), &RK::BehaviorManagerInterface::behaviorAdded);
    QSignalSpy removed(b.get(), &RK::BehaviorManagerInterface::behaviorRemoved);

    b->requestBehaviors();
    ASSERT_TRUE(test::waitUntil([&] { return received.count() == 1; }));
    const QStringList all = received.at(0).at(0).toStringList();
    EXPECT_TRUE(all.contains("User/wave") && all.contains("User/plain"));
    EXPECT_EQ(present.count(), all.size());

    // "User/" goes from running and default lists only, and only at the front.
    behaviors().install("Other/User/odd", "length forever\n");
    behaviors().addDefault("wave");
    behaviors().addDefault("Other/User/odd");
    b->requestDefaultBehaviors();
    ASSERT_TRUE(test::waitUntil([&] { return defaults.count() == 1; }));
    EXPECT_EQ(defaults.at(0).at(0).toStringList(), (QStringList {"Other/User/odd", "wave"}));
    behaviors().startBehavior("plain");
    ASSERT_TRUE(test::waitUntil([&] { return !running.isEmpty(); }));
    EXPECT_EQ(running.last().at(0).toStringList(), QStringList {"plain"});

    // Removal of an unknown library fails, and the list comes all the same.
    b->deleteBoxLibrary("NoSuchLibrary");
    ASSERT_TRUE(test::waitUntil([&] { return libraries.count() == 1; }));
    EXPECT_EQ(libraries.at(0).at(0).toStringList(), (QStringList {"Common", "Dialog"}));

    // Names in events come as the robot wrote them, unquoted.
    behaviors().install("fresh", "length 1\n");
    behaviors().removeBehavior("fresh");
    ASSERT_TRUE(test::waitUntil([&] { return removed.count() == 1; }));
    EXPECT_EQ(added.last().at(0).toString(), "User/fresh");
    EXPECT_EQ(removed.at(0).at(0).toString(), "User/fresh");

    // Futures: natures, installed list, running flag, tags.
    auto nature = b->behaviorNature("lively");
    auto noNature = b->behaviorNature("plain");
    auto unknown = b->behaviorNature("User/none");
    auto isRunning = b->isBehaviorRunning("plain");
    auto installed = b->behaviorsInstalled();
    ASSERT_TRUE(waitForFuture(nature) && waitForFuture(noNature) && waitForFuture(unknown)
                && waitForFuture(isRunning) && waitForFuture(installed));
    EXPECT_EQ(nature.result(), "interactive");
    EXPECT_EQ(noNature.result(), "");
    EXPECT_EQ(unknown.result(), "getBehaviorNatureError");
    EXPECT_TRUE(isRunning.result());
    QStringList expected = all + QStringList {"Other/User/odd"};
    expected.sort();
    EXPECT_EQ(installed.result(), expected);
}

TEST_F(BehaviorManagerTest, MalformedEventsAreIgnored)
{
    connect();
    auto b = manager()->behaviorManagerInterface();
    QSignalSpy running(b.get(), &RK::BehaviorManagerInterface::runningBehaviorsUpdated);
    QSignalSpy failed(b.get(), &RK::BehaviorManagerInterface::behaviorFailed);
    QSignalSpy life(manager()->autonomousLifeInterface().get(),
                    &RK::AutonomousLifeInterface::stateChanged);
    robot().scenario().raiseMicroEvent("BehaviorsRun", 42);
    robot().scenario().raiseMicroEvent("VXBehaviorManager/BehaviorFailed", std::string("boom"));
    robot().scenario().raiseMicroEvent("AutonomousLife/State", 3);
    robot().scenario().raiseMicroEvent("AutonomousLife/State", std::string("dreaming"));
    robot().scenario().raiseMicroEvent(
        "VXBehaviorManager/BehaviorFailed",
        wz::toAny(std::vector<std::string> {"User/plain", "Say", "late"}));
    robot().scenario().raiseMicroEvent("BehaviorsRun", wz::toAny(std::vector<std::string> {}));
    ASSERT_TRUE(test::waitUntil([&] { return running.count() == 1 && failed.count() == 1; }));
    EXPECT_EQ(failed.at(0).at(2).toString(), "late");
    // An unknown state text is a state all the same: unknown.
    ASSERT_TRUE(test::waitUntil([&] { return life.count() == 1; }));
    EXPECT_EQ(life.at(0).at(0).value<RK::LifeState>(), RK::LifeStateUnknown);
}

// Both natures under each life state: with a nature and a solitary or
// interactive life, the focus is switched; otherwise the behaviour is started.
TEST_F(BehaviorManagerTest, InstanceRunsThroughItsStatesForEachNatureAndLifeState)
{
    connect();
    for (const char *lifeState : {"disabled", "solitary", "interactive", "reflex"}) {
        life().setState(lifeState);
        for (const char *name : {"plain", "lively"}) {
            SCOPED_TRACE(std::string(name) + " under " + lifeState);
            const uint64_t focusBefore
                = robot().scenario().callCount("VXAutonomousLife", "switchFocus");
            BehaviorInstanceManager instance(manager(), name, QString(), false);
            StateLog log(&instance);
            ASSERT_TRUE(test::waitUntil([&] {
                return instance.state() == State::Stopped
                    && instance.lifeState()
                    == RK::AutonomousLifeInterface::stateFromString(lifeState);
            }));
            log.states.clear();
            instance.preloadBehavior();
            ASSERT_TRUE(log.waitFor(State::Preloaded));
            instance.playBehavior();
            ASSERT_TRUE(log.waitFor(State::Running));
            instance.stopBehavior();
            ASSERT_TRUE(log.waitFor(State::Stopped));
            EXPECT_EQ(log.states,
                      (std::vector<State> {State::Preloading, State::Preloaded, State::Starting,
                                           State::Running, State::Stopping, State::Stopped}));
            const bool throughLife = std::string(name) == "lively"
                && (std::string(lifeState) == "solitary"
                    || std::string(lifeState) == "interactive");
            EXPECT_EQ(robot().scenario().callCount("VXAutonomousLife", "switchFocus") - focusBefore,
                      throughLife ? 1u : 0u);
            EXPECT_FALSE(behaviors().isRunning(name));
        }
    }
}

// The robot's running lists arrive as events, apart from call answers: one
// raised before a stop may come after it, and must not undo it.
TEST_F(BehaviorManagerTest, StaleRunningListDoesNotUndoAStop)
{
    connect();
    BehaviorInstanceManager instance(manager(), "plain", QString(), true);
    StateLog log(&instance);
    QSignalSpy lists(manager()->behaviorManagerInterface().get(),
                     &RK::BehaviorManagerInterface::runningBehaviorsUpdated);
    instance.playBehavior();
    ASSERT_TRUE(log.waitFor(State::Running));
    robot().scenario().delayMethod("VXBehaviorManager", "stopBehavior",
                                   std::chrono::milliseconds(300));
    instance.stopBehavior();
    ASSERT_EQ(instance.state(), State::Stopping);
    const int listsBefore = lists.count();
    robot().scenario().raiseMicroEvent("BehaviorsRun",
                                       wz::toAny(std::vector<std::string> {"User/plain"}));
    ASSERT_TRUE(test::waitUntil([&] {
        for (int i = listsBefore; i < lists.count(); ++i)
            if (lists.at(i).at(0).toStringList().contains("plain"))
                return true;
        return false;
    }));
    EXPECT_EQ(instance.state(), State::Stopping);
    ASSERT_TRUE(log.waitFor(State::Stopped));
    EXPECT_FALSE(behaviors().isRunning("plain"));
}

TEST_F(BehaviorManagerTest, InstanceFollowsTheRobotsListAndReportsItsErrors)
{
    connect();
    // A missing behaviour.
    BehaviorInstanceManager missing(manager(), "User/none", QString(), false);
    QSignalSpy missingError(&missing, &BehaviorInstanceManager::errorStartingBehavior);
    ASSERT_TRUE(test::waitUntil([&] { return missingError.count() == 1; }));
    EXPECT_EQ(missingError.at(0).at(0).toString(), "Behavior start failed");
    EXPECT_EQ(missing.state(), State::Missing);
    missing.playBehavior();
    missing.preloadBehavior();
    EXPECT_EQ(missing.state(), State::Missing);

    // A preload error, parsed into box and text.
    QSignalSpy added(manager()->behaviorManagerInterface().get(),
                     &RK::BehaviorManagerInterface::behaviorAdded);
    behaviors().install("broken", "box Say in x\npreload-error Say: the sound file is missing\n");
    // The robot's news of the install first: it would bring a Missing
    // instance back to Stopped.
    ASSERT_TRUE(test::waitUntil([&] { return added.count() == 1; }));
    BehaviorInstanceManager broken(manager(), "broken", QString(), true);
    QSignalSpy boxError(&broken, &BehaviorInstanceManager::errorInBox);
    ASSERT_EQ(broken.state(), State::Stopped);
    broken.preloadBehavior();
    ASSERT_TRUE(test::waitUntil([&] { return boxError.count() == 1; }));
    EXPECT_EQ(boxError.at(0).at(0).toString(), "Say");
    EXPECT_EQ(boxError.at(0).at(1).toString(), " the sound file is missing");
    EXPECT_EQ(broken.state(), State::Missing);

    // A failed focus switch shows the robot's own text.
    life().setState("solitary");
    robot().scenario().failMethod("VXAutonomousLife", "switchFocus", "focus held by another app");
    BehaviorInstanceManager focused(manager(), "lively", QString(), true);
    QSignalSpy startError(&focused, &BehaviorInstanceManager::errorStartingBehavior);
    ASSERT_TRUE(test::waitUntil([&] { return focused.lifeState() == RK::LifeStateSolitary; }));
    focused.playBehavior();
    ASSERT_TRUE(test::waitUntil([&] { return startError.count() == 1; }));
    EXPECT_EQ(startError.at(0).at(0).toString(), "Starting behavior failed");
    EXPECT_EQ(startError.at(0).at(1).toString(),
              "VXAutonomousLife::switchFocus failed.\nYour behavior lively will not run.");
    // The robot's own text, as the framework carries it, not the pool's wrapper.
    EXPECT_TRUE(startError.at(0).at(2).toString().startsWith("The error was: "));
    EXPECT_TRUE(startError.at(0).at(2).toString().endsWith(": focus held by another app"));
    EXPECT_EQ(focused.state(), State::Stopped);

    // A box failure, an end on the robot's side, a removal.
    BehaviorInstanceManager plain(manager(), "User/plain", QString(), true);
    QSignalSpy plainBoxError(&plain, &BehaviorInstanceManager::errorInBox);
    StateLog log(&plain);
    behaviors().startBehavior("plain");
    ASSERT_TRUE(log.waitFor(State::Running));
    robot().scenario().raiseMicroEvent(
        "VXBehaviorManager/BehaviorFailed",
        wz::toAny(std::vector<std::string> {"User/plain", "Say", "too loud"}));
    ASSERT_TRUE(test::waitUntil([&] { return plainBoxError.count() == 1; }));
    EXPECT_EQ(plainBoxError.at(0).at(1).toString(), "too loud");
    behaviors().finishBehavior("plain");
    ASSERT_TRUE(log.waitFor(State::Stopped));
    behaviors().removeBehavior("plain");
    ASSERT_TRUE(log.waitFor(State::Missing));
}

// A start the robot refuses ends Starting, with the robot's text.
TEST_F(BehaviorManagerTest, ARefusedStartEndsInStoppedWithTheRobotsText)
{
    connect();
    QSignalSpy added(manager()->behaviorManagerInterface().get(),
                     &RK::BehaviorManagerInterface::behaviorAdded);
    behaviors().install("broken", "box Say in x\npreload-error Say: the sound file is missing\n");
    ASSERT_TRUE(test::waitUntil([&] { return added.count() == 1; }));
    BehaviorInstanceManager broken(manager(), "broken", QString(), true);
    StateLog log(&broken);
    QSignalSpy startError(&broken, &BehaviorInstanceManager::errorStartingBehavior);
    QSignalSpy typed(&broken, &BehaviorInstanceManager::errorOccurred);
    broken.playBehavior();
    ASSERT_TRUE(log.waitFor(State::Stopped));
    EXPECT_EQ(log.states, (std::vector<State> {State::Starting, State::Stopped}));
    ASSERT_EQ(startError.count(), 1);
    EXPECT_EQ(startError.at(0).at(1).toString(),
              "VXBehaviorManager::startBehavior failed.\nYour behavior broken will not run.");
    EXPECT_TRUE(startError.at(0).at(2).toString().contains("the sound file is missing"))
        << startError.at(0).at(2).toString().toStdString();
    ASSERT_EQ(typed.count(), 1);
    const auto error = typed.at(0).at(0).value<RK::OperationError>();
    EXPECT_EQ(error.operation, "playBehavior");
    EXPECT_EQ(error.code, RK::ErrorCode::RobotFailed);
    EXPECT_EQ(error.details, startError.at(0).at(2).toString());

    // Already running on the robot: the new instance shows it, a second
    // start is refused, and the robot's list brings Running back. The list
    // the robot raises for this start comes first: late, it would tell the
    // new instance Running before its own questions are answered.
    QSignalSpy lists(manager()->behaviorManagerInterface().get(),
                     &RK::BehaviorManagerInterface::runningBehaviorsUpdated);
    behaviors().startBehavior("plain");
    ASSERT_TRUE(test::waitUntil(
        [&] { return !lists.isEmpty() && lists.last().at(0).toStringList().contains("plain"); }));
    BehaviorInstanceManager plain(manager(), "plain", QString(), false);
    StateLog plainLog(&plain);
    QSignalSpy plainError(&plain, &BehaviorInstanceManager::errorStartingBehavior);
    ASSERT_TRUE(plainLog.waitFor(State::Running));
    // The presence answer and the list travel apart: Stopped may come first
    // or not at all, since a list that names the behaviour proves it there.
    EXPECT_EQ(plainLog.states.back(), State::Running) << plainLog.seen();
    plainLog.states.clear();
    plain.playBehavior();
    ASSERT_TRUE(test::waitUntil([&] { return plainError.count() == 1; }));
    EXPECT_TRUE(plainError.at(0).at(2).toString().contains("already running"));
    ASSERT_TRUE(plainLog.waitFor(State::Running));
    EXPECT_EQ(plainLog.states,
              (std::vector<State> {State::Starting, State::Stopped, State::Running}));
}

// A stop before the behaviour runs ends in Stopped, so that it can be
// loaded again; a stop during a start lets the start through, then stops.
TEST_F(BehaviorManagerTest, AStopBeforeRunningEndsInStopped)
{
    connect();
    // Listening before the instance exists: the list it asks for as it is
    // made can come back before its constructor returns.
    QSignalSpy lists(manager()->behaviorManagerInterface().get(),
                     &RK::BehaviorManagerInterface::runningBehaviorsUpdated);
    BehaviorInstanceManager instance(manager(), "plain", QString(), true);
    StateLog log(&instance);
    // The list the new instance asks for, before anything else happens.
    ASSERT_TRUE(test::waitUntil([&] { return lists.count() >= 1; }));
    instance.preloadBehavior();
    ASSERT_TRUE(log.waitFor(State::Preloaded));
    log.states.clear();
    instance.stopBehavior();
    ASSERT_TRUE(log.waitFor(State::Stopped));
    EXPECT_EQ(log.states, (std::vector<State> {State::Stopping, State::Stopped}));
    instance.preloadBehavior();
    ASSERT_TRUE(log.waitFor(State::Preloaded));

    // From Starting, the robot slow to start.
    robot().scenario().delayMethod("VXBehaviorManager", "startBehavior",
                                   std::chrono::milliseconds(200));
    log.states.clear();
    instance.playBehavior();
    // After the nature: the start is on its way.
    ASSERT_TRUE(log.waitFor(State::Starting));
    instance.stopBehavior();
    ASSERT_EQ(instance.state(), State::Stopping);
    // The robot's last list, raised by the stop, names nothing.
    ASSERT_TRUE(test::waitUntil([&] {
        return instance.state() == State::Stopped && !behaviors().isRunning("plain")
            && lists.count() > 0 && !lists.last().at(0).toStringList().contains("plain")
            && robot().scenario().callCount("VXBehaviorManager", "stopBehavior") >= 2;
    }));
    EXPECT_EQ(log.states.front(), State::Starting);
    EXPECT_EQ(log.states.back(), State::Stopped);
    instance.preloadBehavior();
    ASSERT_TRUE(log.waitFor(State::Preloaded)) << log.seen();
}

// The robot's events trail its replies: the list the start raised comes
// after the stop's answer. It must not bring back Running once stopped, nor
// undo a preload asked for after the stop.
TEST_F(BehaviorManagerTest, ListsLateBehindTheRepliesDoNotReviveAStoppedBehavior)
{
    connect();
    auto b = manager()->behaviorManagerInterface();
    QSignalSpy lists(b.get(), &RK::BehaviorManagerInterface::runningBehaviorsUpdated);
    BehaviorInstanceManager instance(manager(), "plain", QString(), true);
    StateLog log(&instance);
    ASSERT_TRUE(test::waitUntil([&] { return lists.count() >= 1; }));
    const std::vector<std::string> subscribers = robot().memory().subscribers("BehaviorsRun");
    ASSERT_EQ(subscribers.size(), 1u);
    robot().scenario().holdCallbacks(subscribers.front());
    robot().scenario().delayMethod("VXBehaviorManager", "startBehavior",
                                   std::chrono::milliseconds(100));
    const int listsBefore = lists.count();
    log.states.clear();
    instance.playBehavior();
    ASSERT_TRUE(log.waitFor(State::Starting));
    instance.stopBehavior();
    // The stop goes once the start is answered, from this thread's loop.
    ASSERT_TRUE(test::waitUntil(
        [] { return robot().scenario().callCount("VXBehaviorManager", "stopBehavior") == 1; }));
    // A later answer on the same connection: the stop's is in by then.
    auto running = b->isBehaviorRunning("plain");
    ASSERT_TRUE(waitForFuture(running));
    EXPECT_FALSE(running.result());
    EXPECT_EQ(instance.state(), State::Stopping);

    robot().scenario().holdCallbacks(subscribers.front(), false);
    ASSERT_TRUE(test::waitUntil([&] { return lists.count() == listsBefore + 2; }));
    ASSERT_TRUE(log.waitFor(State::Stopped));
    EXPECT_EQ(log.states, (std::vector<State> {State::Starting, State::Stopping, State::Stopped}))
        << log.seen();
    instance.preloadBehavior();
    ASSERT_TRUE(log.waitFor(State::Preloaded)) << log.seen();
}

// Starts and stops that overlap: each play sends one start, a stop asked
// for while a start (direct or through life's focus) is on its way goes after
// it, and a stop the robot refuses ends Stopping.
TEST_F(BehaviorManagerTest, OverlappingStartsAndStopsEachEndOnce)
{
    connect();
    auto b = manager()->behaviorManagerInterface();
    auto calls = [](const char *service, const char *method) {
        return robot().scenario().callCount(service, method);
    };
    // A later answer from the same service: a stop sent before it has reached the robot.
    auto barrier = [&] {
        auto f = b->isBehaviorRunning("plain");
        return waitForFuture(f);
    };

    {
        SCOPED_TRACE("a stop during life's focus switch");
        life().setState("solitary");
        // The running list the instance asks for as it is made comes back
        // only once the stop waits for the switch: it must not end the stop.
        robot().scenario().holdMethod("VXBehaviorManager", "getRunningBehaviors");
        QSignalSpy lists(b.get(), &RK::BehaviorManagerInterface::runningBehaviorsUpdated);
        BehaviorInstanceManager lively(manager(), "lively", QString(), true);
        StateLog log(&lively);
        ASSERT_TRUE(test::waitUntil([&] { return lively.lifeState() == RK::LifeStateSolitary; }));
        robot().scenario().holdMethod("VXAutonomousLife", "switchFocus");
        const uint64_t focus = calls("VXAutonomousLife", "switchFocus");
        const uint64_t stops = calls("VXBehaviorManager", "stopBehavior");
        log.states.clear();
        lively.playBehavior();
        ASSERT_TRUE(
            test::waitUntil([&] { return calls("VXAutonomousLife", "switchFocus") == focus + 1; }));
        lively.stopBehavior();
        robot().scenario().restoreMethod("VXBehaviorManager", "getRunningBehaviors");
        ASSERT_TRUE(test::waitUntil([&] { return lists.count() == 1; }));
        EXPECT_EQ(lively.state(), State::Stopping);
        ASSERT_TRUE(barrier());
        EXPECT_EQ(calls("VXBehaviorManager", "stopBehavior"), stops);
        robot().scenario().restoreMethod("VXAutonomousLife", "switchFocus");
        ASSERT_TRUE(test::waitUntil([&] {
            return lively.state() == State::Stopped && !behaviors().isRunning("lively")
                && calls("VXBehaviorManager", "stopBehavior") == stops + 1;
        })) << log.seen();
        EXPECT_EQ(log.states,
                  (std::vector<State> {State::Starting, State::Stopping, State::Stopped}));
        life().setState("disabled");
    }

    BehaviorInstanceManager plain(manager(), "plain", QString(), true);
    StateLog log(&plain);
    QSignalSpy startErrors(&plain, &BehaviorInstanceManager::errorStartingBehavior);
    // Once through, so that the nature is known and a play starts at once.
    plain.playBehavior();
    ASSERT_TRUE(log.waitFor(State::Running));
    plain.stopBehavior();
    ASSERT_TRUE(log.waitFor(State::Stopped));

    {
        SCOPED_TRACE("play twice, then stop, while the start is held");
        robot().scenario().holdMethod("VXBehaviorManager", "startBehavior");
        const uint64_t starts = calls("VXBehaviorManager", "startBehavior");
        const uint64_t stops = calls("VXBehaviorManager", "stopBehavior");
        log.states.clear();
        plain.playBehavior();
        ASSERT_TRUE(test::waitUntil(
            [&] { return calls("VXBehaviorManager", "startBehavior") == starts + 1; }));
        plain.playBehavior();
        plain.stopBehavior();
        robot().scenario().restoreMethod("VXBehaviorManager", "startBehavior");
        ASSERT_TRUE(test::waitUntil([&] {
            return plain.state() == State::Stopped && !behaviors().isRunning("plain")
                && calls("VXBehaviorManager", "stopBehavior") == stops + 1;
        })) << log.seen();
        ASSERT_TRUE(barrier());
        EXPECT_EQ(calls("VXBehaviorManager", "startBehavior"), starts + 1);
        EXPECT_EQ(startErrors.count(), 0);
        EXPECT_EQ(log.states,
                  (std::vector<State> {State::Starting, State::Stopping, State::Stopped}));
    }

    {
        SCOPED_TRACE("a refused stop");
        plain.playBehavior();
        ASSERT_TRUE(log.waitFor(State::Running));
        QSignalSpy errors(b.get(), &RK::BehaviorManagerInterface::errorOccurred);
        robot().scenario().failMethod("VXBehaviorManager", "stopBehavior", "held by the robot");
        log.states.clear();
        plain.stopBehavior();
        ASSERT_TRUE(log.waitFor(State::Running)) << log.seen();
        EXPECT_EQ(log.states, (std::vector<State> {State::Stopping, State::Running}));
        ASSERT_EQ(errors.count(), 1);
        EXPECT_EQ(errors.at(0).at(0).value<RK::OperationError>().operation, "stopBehavior");
        EXPECT_TRUE(behaviors().isRunning("plain"));
        robot().scenario().restoreMethod("VXBehaviorManager", "stopBehavior");
        plain.stopBehavior();
        ASSERT_TRUE(log.waitFor(State::Stopped));
    }
}

TEST_F(BehaviorManagerTest, LifeInterfaceReadsAndChangesTheState)
{
    connect();
    auto lifeInterface = manager()->autonomousLifeInterface();
    ASSERT_TRUE(lifeInterface);
    QSignalSpy changed(lifeInterface.get(), &RK::AutonomousLifeInterface::stateChanged);
    // The interface subscribes to the change event on the module's thread,
    // after the connection is reported: a change made before that is not told.
    ASSERT_TRUE(test::waitUntil(
        [] { return !robot().memory().subscribers("AutonomousLife/State").empty(); }));
    auto set = lifeInterface->setState(RK::LifeStateInteractive);
    ASSERT_TRUE(waitForFuture(set));
    ASSERT_TRUE(test::waitUntil([&] { return changed.count() == 1; }));
    EXPECT_EQ(changed.at(0).at(0).value<RK::LifeState>(), RK::LifeStateInteractive);
    auto state = lifeInterface->state();
    ASSERT_TRUE(waitForFuture(state));
    EXPECT_EQ(state.result(), RK::LifeStateInteractive);
    // An unknown state is sent as an empty text, which the robot refuses.
    auto bad = lifeInterface->setState(RK::LifeStateUnknown);
    ASSERT_TRUE(waitForFuture(bad));
    ASSERT_EQ(robot().scenario().calls("VXAutonomousLife", "setState").back().at(0),
              wz::AnyValue(""));
    EXPECT_EQ(life().state(), "interactive");
}

TEST_F(BehaviorManagerTest, RobotWithoutLifeStartsDirectly)
{
    robot().scenario().omitService("VXAutonomousLife");
    connect();
    EXPECT_FALSE(manager()->autonomousLifeInterface());
    BehaviorInstanceManager instance(manager(), "lively", QString(), true);
    StateLog log(&instance);
    instance.playBehavior();
    ASSERT_TRUE(log.waitFor(State::Running));
    EXPECT_EQ(robot().scenario().callCount("VXBehaviorManager", "startBehavior"), 1u);
}

TEST_F(BehaviorManagerTest, OlderManagerListsByNamesAndHasNoNatures)
{
    robot().scenario().removeMethod("VXBehaviorManager", "getInstalledBehaviors");
    robot().scenario().removeMethod("VXBehaviorManager", "getBehaviorNature");
    connect();
    auto b = manager()->behaviorManagerInterface();
    QSignalSpy received(b.get(), &RK::BehaviorManagerInterface::behaviorsReceived);
    QSignalSpy present(b.get(), &RK::BehaviorManagerInterface::behaviorPresent);
    b->requestBehaviors();
    ASSERT_TRUE(test::waitUntil([&] { return received.count() == 1; }));
    EXPECT_TRUE(received.at(0).at(0).toStringList().contains("User/lively"));
    auto nature = b->behaviorNature("lively");
    ASSERT_TRUE(waitForFuture(nature));
    EXPECT_EQ(nature.result(), "");
    EXPECT_EQ(present.count(), 0);

    // No nature: started directly even under a solitary life.
    life().setState("solitary");
    BehaviorInstanceManager instance(manager(), "lively", QString(), true);
    StateLog log(&instance);
    ASSERT_TRUE(test::waitUntil([&] { return instance.lifeState() == RK::LifeStateSolitary; }));
    instance.playBehavior();
    ASSERT_TRUE(log.waitFor(State::Running));
    EXPECT_EQ(robot().scenario().callCount("VXAutonomousLife", "switchFocus"), 0u);
}

// Disconnecting while a behaviour runs, while a preload or a focus switch is
// in flight: the instance goes Missing and nothing outlives the connection.
TEST_F(BehaviorManagerTest, DisconnectionDuringCallsIsSafe)
{
    for (int phase = 0; phase < 3; ++phase) {
        SCOPED_TRACE(phase);
        robot().scenario().reset();
        life().setState(phase == 2 ? "solitary" : "disabled");
        if (phase == 1)
            robot().scenario().delayMethod("VXBehaviorManager", "preloadBehavior",
                                           std::chrono::milliseconds(300));
        if (phase == 2)
            robot().scenario().delayMethod("VXAutonomousLife", "switchFocus",
                                           std::chrono::milliseconds(300));
        connect();
        auto instance = std::make_unique<BehaviorInstanceManager>(
            manager(), phase == 2 ? "lively" : "plain", QString(), true);
        StateLog log(instance.get());
        ASSERT_TRUE(test::waitUntil(
            [&] { return phase != 2 || instance->lifeState() == RK::LifeStateSolitary; }));
        const char *method = phase == 1 ? "preloadBehavior"
            : phase == 2                ? "switchFocus"
                                        : "startBehavior";
        const char *service = phase == 2 ? "VXAutonomousLife" : "VXBehaviorManager";
        if (phase == 1)
            instance->preloadBehavior();
        else
            instance->playBehavior();
        if (phase == 0)
            ASSERT_TRUE(log.waitFor(State::Running));
        else
            ASSERT_TRUE(test::waitUntil(
                [&] { return robot().scenario().callCount(service, method) == 1; }));
        ASSERT_TRUE(app->disconnectAndWait());
        EXPECT_EQ(instance->state(), State::Missing);
        // What the ended connection queued to the instance arrives before it goes.
        ASSERT_TRUE(test::barrier(instance.get()));
        instance.reset();
        app.reset();
        behaviors().stopAll();
    }
}

} // namespace
