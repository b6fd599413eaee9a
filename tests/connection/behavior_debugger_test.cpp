// The behaviour debugger against the simulated robot: loading, box events,
// the timeline's frame, box calls and parameters, and running again.
#include "behavior_fixture.h"

#include <connection/behavior_debugger.h>

#include <QSignalSpy>

#include <sim/memory_service.h>

using namespace test;

namespace {

class BehaviorDebuggerTest : public BehaviorTest
{
protected:
    // The debugger is made before the connection, as an application does,
    // so that it hears connectionEstablished.
    void SetUp() override
    {
        BehaviorTest::SetUp();
        app = std::make_unique<Recorder>();
        debugger = std::make_unique<RK::BehaviorDebugger>(app->manager.get());
        ASSERT_TRUE(app->connectAndWait(robot()));
    }
    void TearDown() override
    {
        debugger.reset();
        BehaviorTest::TearDown();
    }
    // IOActivated pairs received so far, as "name=value".
    QStringList activated(const QSignalSpy &spy) const
    {
        QStringList out;
        for (const QList<QVariant> &args : spy)
            out << args.at(0).toString() + "=" + args.at(1).toString();
        return out;
    }

    std::unique_ptr<RK::BehaviorDebugger> debugger;
};

TEST_F(BehaviorDebuggerTest, LoadsRunsAndShowsBoxesAndFrames)
{
    QSignalSpy loaded(debugger.get(), &RK::BehaviorDebugger::behaviorLoaded);
    QSignalSpy started(debugger.get(), &RK::BehaviorDebugger::behaviorStarted);
    QSignalSpy stopped(debugger.get(), &RK::BehaviorDebugger::behaviorStopped);
    QSignalSpy io(debugger.get(), &RK::BehaviorDebugger::IOActivated);
    QSignalSpy frames(debugger.get(), &RK::BehaviorDebugger::currentFrameChanged);

    // A level set while loading, before the id is known, applies once it is.
    auto once = std::make_shared<QMetaObject::Connection>();
    *once = QObject::connect(debugger.get(), &RK::BehaviorDebugger::behaviorLoading, [this, once] {
        QObject::disconnect(*once);
        EXPECT_TRUE(debugger->frameManagerId().isEmpty());
        debugger->setLevel({"Say__said", "Say__onStart"}, "Main");
    });
    debugger->initialize("plain");
    ASSERT_TRUE(test::waitUntil([&] { return loaded.count() == 1; }));
    const QString id = debugger->frameManagerId();
    EXPECT_EQ(id.toStdString(), behaviors().frameManagerId("plain"));
    EXPECT_EQ(debugger->subscribedEvents(), (QStringList {id + "Say__said", id + "Say__onStart"}));
    EXPECT_EQ(debugger->frameKey(), id + "Main");
    ASSERT_TRUE(test::waitUntil([&] {
        return robot().memory().subscribers((id + "Say__said").toStdString()).size() == 1;
    }));

    debugger->startBehavior();
    ASSERT_TRUE(test::waitUntil([&] { return started.count() == 1; }));
    EXPECT_TRUE(debugger->isRunning());
    // The scripted output, and the frame moving forward.
    ASSERT_TRUE(test::waitUntil([&] { return activated(io).contains("Say__said=\"hi\""); }));
    ASSERT_TRUE(test::waitUntil([&] { return frames.count() >= 2; }));
    EXPECT_LT(frames.at(0).at(0).toInt(), frames.last().at(0).toInt());
    EXPECT_EQ(debugger->getCurrentFrame(), frames.last().at(0).toInt());

    // A box input: the view is told at once, then the robot's events come back.
    io.clear();
    debugger->callBox("Say", "onInput_onStart", VX::VXValue(5), true, true);
    EXPECT_EQ(activated(io).value(0), "Say__onStart=");
    ASSERT_TRUE(test::waitUntil([&] {
        return activated(io).contains("Say__onStart=5") && activated(io).contains("Say__said=5");
    }));
    // An output fired from here, and parameters.
    debugger->callBoxOutput("Say", "said", VX::VXValue(std::string("out")));
    ASSERT_TRUE(test::waitUntil([&] { return activated(io).contains("Say__said=\"out\""); }));
    QMap<QString, VX::VXValue> params;
    params["volume"] = VX::VXValue(0.25f);
    params["voice"] = VX::VXValue(std::string("low"));
    debugger->sendParameterValues("Say", params);
    // One call a parameter, in the map's order: the last one ends the wait.
    ASSERT_TRUE(test::waitUntil(
        [&] { return behaviors().parameter("plain", "Say", "volume") == wz::AnyValue(0.25f); }));
    EXPECT_EQ(behaviors().parameter("plain", "Say", "voice"), wz::AnyValue("low"));

    // Stop: what was subscribed and polled is released.
    debugger->stopBehavior();
    ASSERT_TRUE(test::waitUntil([&] { return stopped.count() == 1; }));
    EXPECT_TRUE(debugger->subscribedEvents().isEmpty());
    EXPECT_TRUE(debugger->frameKey().isEmpty());
    EXPECT_TRUE(debugger->isStopped());

    // Load and run again: the same subscriptions once, not twice.
    debugger->setLevel({"Say__said"}, "Main");
    debugger->loadBehavior();
    ASSERT_TRUE(test::waitUntil([&] { return loaded.count() == 2; }));
    EXPECT_EQ(debugger->subscribedEvents(), QStringList {id + "Say__said"});
    io.clear();
    debugger->startBehavior();
    ASSERT_TRUE(test::waitUntil([&] { return started.count() == 2; }));
    ASSERT_TRUE(test::waitUntil([&] { return activated(io).contains("Say__said=\"hi\""); }));
    EXPECT_EQ(activated(io).count("Say__said=\"hi\""), 1);
    EXPECT_EQ(robot().memory().subscribers((id + "Say__said").toStdString()).size(), 1u);
}

TEST_F(BehaviorDebuggerTest, NothingIsSentBeforeTheIdAndEndsAreReported)
{
    QSignalSpy io(debugger.get(), &RK::BehaviorDebugger::IOActivated);
    QSignalSpy stopped(debugger.get(), &RK::BehaviorDebugger::behaviorStopped);
    QSignalSpy boxErrors(debugger.get(), &RK::BehaviorDebugger::errorInBox);
    // Without an instance, nothing happens and nothing is called.
    debugger->startBehavior();
    debugger->loadBehavior();
    debugger->callBox("Say", "onInput_onStart", VX::VXValue(1), false, false);
    debugger->callBoxOutput("Say", "said", VX::VXValue(1));
    EXPECT_EQ(io.count(), 1); // the output, told to the view only
    EXPECT_FALSE(debugger->isStarted());
    EXPECT_TRUE(debugger->isStopped());

    // A box failure reaches the debugger; the robot ends the behaviour.
    behaviors().install("failing", "length forever\nbox Arm in go\nfail 0.1 Arm motor too hot\n");
    QSignalSpy loaded(debugger.get(), &RK::BehaviorDebugger::behaviorLoaded);
    debugger->initialize("failing");
    ASSERT_TRUE(test::waitUntil([&] { return loaded.count() == 1; }));
    debugger->startBehavior();
    ASSERT_TRUE(test::waitUntil([&] { return boxErrors.count() == 1; }));
    ASSERT_TRUE(test::waitUntil([&] { return debugger->isStopped(); }));
    EXPECT_GE(stopped.count(), 1);
    EXPECT_EQ(boxErrors.at(0).at(1).toString(), "motor too hot");

    // Removed on the robot: the instance goes, and with it the debugger's state.
    behaviors().removeBehavior("failing");
    ASSERT_TRUE(test::waitUntil([&] { return !debugger->isStarted(); }));
    EXPECT_TRUE(debugger->subscribedEvents().isEmpty());
}

TEST_F(BehaviorDebuggerTest, AnUnchangedLevelSendsNothingAndAMissingIdLeavesItPreloaded)
{
    QSignalSpy loaded(debugger.get(), &RK::BehaviorDebugger::behaviorLoaded);
    debugger->initialize("plain");
    ASSERT_TRUE(test::waitUntil([&] { return loaded.count() == 1; }));
    auto subscriptions
        = [] { return robot().scenario().callCount("VXMemory", "subscribeToMicroEvent"); };
    debugger->setLevel({"Say__said"}, QString());
    const std::string said = (debugger->frameManagerId() + "Say__said").toStdString();
    ASSERT_TRUE(test::waitUntil([&] { return robot().memory().subscribers(said).size() == 1; }));
    const uint64_t before = subscriptions();
    // The same level again, then a new one: only the new one reaches the robot.
    debugger->setLevel({"Say__said"}, QString());
    debugger->setLevel({"Say__said", "Say__onStart"}, QString());
    ASSERT_TRUE(test::waitUntil([&] { return subscriptions() >= before + 2; }));
    test::waitUntil([&] {
        return robot()
                   .memory()
                   .subscribers((debugger->frameManagerId() + "Say__onStart").toStdString())
                   .size()
            == 1;
    });
    EXPECT_EQ(subscriptions(), before + 2);

    // The id cannot be read: the behaviour stays Preloaded, is not loaded,
    // and the load says so.
    robot().scenario().failMethod("VXBehaviorManager", "_getBehaviorFrameManagerId", "busy");
    QSignalSpy loading(debugger.get(), &RK::BehaviorDebugger::behaviorLoading);
    QSignalSpy errors(debugger.get(), &RK::BehaviorDebugger::errorOccurred);
    debugger->initialize("lively");
    ASSERT_TRUE(test::waitUntil([&] {
        return robot().scenario().callCount("VXBehaviorManager", "_getBehaviorFrameManagerId") >= 2;
    }));
    // A later answer of the same executer thread marks the end of that request.
    auto b = manager()->behaviorManagerInterface();
    QSignalSpy running(b.get(), &RK::BehaviorManagerInterface::runningBehaviorsUpdated);
    b->requestRunningBehaviors();
    ASSERT_TRUE(test::waitUntil([&] { return running.count() == 1; }));
    EXPECT_EQ(loading.count(), 1);
    EXPECT_EQ(loaded.count(), 1);
    EXPECT_EQ(debugger->instance()->state(), RK::BehaviorInstanceManager::Preloaded);
    EXPECT_TRUE(debugger->frameManagerId().isEmpty());
    ASSERT_EQ(errors.count(), 1);
    const auto error = errors.at(0).at(0).value<RK::OperationError>();
    EXPECT_EQ(error.operation, "loadBehavior");
    EXPECT_TRUE(error.details.contains("busy")) << error.details.toStdString();

    // An empty id (the behaviour unloaded meanwhile) is a failed load too.
    robot().scenario().replaceMethod("VXBehaviorManager", "_getBehaviorFrameManagerId",
                                     [](const sim::Args &) { return wz::AnyValue(std::string()); });
    debugger->initialize("plain");
    ASSERT_TRUE(test::waitUntil([&] { return errors.count() == 2; }));
    EXPECT_EQ(errors.at(1).at(0).value<RK::OperationError>().operation, "loadBehavior");
    EXPECT_EQ(loaded.count(), 1);
}

// Two debuggers share the robot's behaviour interface: each load ends with
// its own id, whichever answer comes first.
TEST_F(BehaviorDebuggerTest, OverlappingLoadsEachGetTheirOwnId)
{
    RK::BehaviorDebugger second(app->manager.get());
    QSignalSpy firstLoaded(debugger.get(), &RK::BehaviorDebugger::behaviorLoaded);
    QSignalSpy secondLoaded(&second, &RK::BehaviorDebugger::behaviorLoaded);
    robot().scenario().delayMethod("VXBehaviorManager", "_getBehaviorFrameManagerId",
                                   std::chrono::milliseconds(100));
    debugger->initialize("plain");
    second.initialize("lively");
    ASSERT_TRUE(
        test::waitUntil([&] { return firstLoaded.count() == 1 && secondLoaded.count() == 1; }));
    EXPECT_NE(debugger->frameManagerId(), second.frameManagerId());
    EXPECT_FALSE(debugger->frameManagerId().isEmpty());
    EXPECT_FALSE(second.frameManagerId().isEmpty());
}

// Stopped before it was started, the debugger can load again; a start the
// robot refuses is reported and ends the run.
TEST_F(BehaviorDebuggerTest, AStopBeforeTheStartAndARefusedStartCanBeLeft)
{
    QSignalSpy loaded(debugger.get(), &RK::BehaviorDebugger::behaviorLoaded);
    QSignalSpy stopped(debugger.get(), &RK::BehaviorDebugger::behaviorStopped);
    QSignalSpy startError(debugger.get(), &RK::BehaviorDebugger::errorStartingBehavior);
    QSignalSpy typed(debugger.get(), &RK::BehaviorDebugger::errorOccurred);
    debugger->initialize("plain");
    ASSERT_TRUE(test::waitUntil([&] { return loaded.count() == 1; }));
    debugger->stopBehavior();
    ASSERT_TRUE(test::waitUntil([&] { return stopped.count() == 1; }));
    EXPECT_TRUE(debugger->isStopped());
    debugger->loadBehavior();
    ASSERT_TRUE(test::waitUntil([&] { return loaded.count() == 2; }));

    robot().scenario().failMethod("VXBehaviorManager", "startBehavior", "the robot is busy");
    debugger->startBehavior();
    ASSERT_TRUE(test::waitUntil([&] { return stopped.count() == 2; }));
    ASSERT_EQ(startError.count(), 1);
    EXPECT_TRUE(startError.at(0).at(2).toString().endsWith("the robot is busy"))
        << startError.at(0).at(2).toString().toStdString();
    ASSERT_EQ(typed.count(), 1);
    EXPECT_EQ(typed.at(0).at(0).value<RK::OperationError>().operation, "startBehavior");
    EXPECT_TRUE(debugger->isStopped());
    EXPECT_FALSE(debugger->isRunning());
}

TEST_F(BehaviorDebuggerTest, DisconnectionWhileRunning)
{
    QSignalSpy loaded(debugger.get(), &RK::BehaviorDebugger::behaviorLoaded);
    QSignalSpy stopped(debugger.get(), &RK::BehaviorDebugger::behaviorStopped);
    debugger->initialize("plain");
    ASSERT_TRUE(test::waitUntil([&] { return loaded.count() == 1; }));
    debugger->setLevel({"Say__said"}, "Main");
    debugger->startBehavior();
    ASSERT_TRUE(test::waitUntil([&] { return debugger->isPaused(); }));
    ASSERT_TRUE(app->disconnectAndWait());
    EXPECT_EQ(stopped.count(), 1);
    EXPECT_FALSE(debugger->isStarted());
    // Initializing again while disconnected leaves a Missing instance, harmlessly.
    debugger->initialize("plain");
    EXPECT_TRUE(debugger->isStopped());
}

} // namespace
