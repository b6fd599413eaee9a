#include "robot_fixture.h"

#include "connection_p.h"
#include <connection/recorder_module.h>

#include <sim/motion_recorder_service.h>
#include <sim/motion_service.h>

#include <memory>
#include <vector>

namespace {

class RecorderTest : public test::RobotTest
{
protected:
    void SetUp() override
    {
        test::RobotTest::SetUp();
        motionRecorder().reset();
        motion().resetPose();
        recorder = std::make_unique<test::Recorder>();
        ASSERT_TRUE(recorder->connectAndWait(robot()));
        module = recorder->manager->recorderModule();
        ASSERT_TRUE(module);
        using R = RK::VXSartelRecorder;
        QObject::connect(module.get(), &R::storePositionRequested, &context,
                         [this] { events << QStringLiteral("store"); });
        QObject::connect(module.get(), &R::stepReceived, &context,
                         [this](int step) { events << QStringLiteral("step %1").arg(step); });
        QObject::connect(module.get(), &R::sendReplayedToStepRequested, &context,
                         [this](int step) { events << QStringLiteral("replayed %1").arg(step); });
        QObject::connect(module.get(), &R::recordingStopped, &context,
                         [this] { events << QStringLiteral("stopped"); });
        QObject::connect(module.get(), &R::recordingReceived, &context,
                         [this](const VX::VXValue &poses) {
                             received.push_back(poses);
                             events << QStringLiteral("received");
                         });
    }
    void TearDown() override
    {
        module.reset();
        recorder.reset();
        motionRecorder().reset();
        motion().resetPose();
        test::RobotTest::TearDown();
    }

    static sim::MotionRecorderService &motionRecorder()
    {
        return *robot().serviceAs<sim::MotionRecorderService>("VXMotionRecorder");
    }
    static sim::MotionService &motion()
    {
        return *robot().serviceAs<sim::MotionService>("VXMotion");
    }
    bool seen(const QString &event)
    {
        return test::waitUntil([&] { return events.contains(event); });
    }

    QObject context;
    std::unique_ptr<test::Recorder> recorder;
    boost::shared_ptr<RK::VXSartelRecorder> module;
    QStringList events;
    std::vector<VX::VXValue> received;
};

TEST_F(RecorderTest, InteractiveRecording)
{
    ASSERT_TRUE(module->startToRecordInteractively({"NeckYaw", "LArmGrip"}, 2,
                                                   RK::VXSartelRecorder::ModeDefault));
    EXPECT_TRUE(module->isRecording());
    EXPECT_EQ(module->jointsToRecord(),
              (QSet<QString> {QStringLiteral("NeckYaw"), QStringLiteral("LArmGrip")}));
    ASSERT_TRUE(test::waitUntil([] { return motionRecorder().isRecording(); }));

    motion().setAngleNow("NeckYaw", 0.5f);
    motion().setAngleNow("LArmGrip", 0.25f);
    // Sensors lag: let the reading catch up with the joints.
    ASSERT_TRUE(test::waitUntil(
        [] { return motion().getAngles(wz::AnyValue("NeckYaw"), true).front() == 0.5f; }));
    motionRecorder().requestStorePosition();
    ASSERT_TRUE(seen(QStringLiteral("step 0")));
    EXPECT_TRUE(events.contains(QStringLiteral("store")))
        << "subscribed before the module was registered";

    motion().setAngleNow("NeckYaw", -0.5f);
    ASSERT_TRUE(test::waitUntil(
        [] { return motion().getAngles(wz::AnyValue("NeckYaw"), true).front() == -0.5f; }));
    motionRecorder().requestStorePosition();
    // The last pose ends the recording: the robot says so by the event and
    // by calling the module.
    ASSERT_TRUE(seen(QStringLiteral("step 1")));
    ASSERT_TRUE(test::waitUntil([&] { return events.count(QStringLiteral("stopped")) == 2; }));
    EXPECT_TRUE(module->jointsToRecord().isEmpty());
    EXPECT_TRUE(module->isRecording()) << "until the application stops it";

    module->stopRecording();
    EXPECT_FALSE(module->isRecording());
    ASSERT_TRUE(seen(QStringLiteral("received")));
    const VX::VXValue &poses = received[0];
    ASSERT_EQ(poses.getSize(), 2);
    EXPECT_EQ(poses[0].ToStringArray(), (std::vector<std::string> {"NeckYaw", "LArmGrip"}));
    ASSERT_EQ(poses[1].getSize(), 2);
    EXPECT_EQ(poses[1][0].ToFloatArray(), (std::vector<float> {0.5f, 0.25f}));
    EXPECT_EQ(poses[1][1].ToFloatArray(), (std::vector<float> {-0.5f, 0.25f}));

    // Stopping again asks nothing of the robot.
    module->stopRecording();
    EXPECT_EQ(robot().scenario().callCount("VXMotionRecorder", "stopAndGetRecording"), 1u);
}

// The "Recording" event an interactive recording listened to stays
// subscribed: a periodic one after it, on the same connection, still ends once.
TEST_F(RecorderTest, APeriodicRecordingAfterAnInteractiveOneEndsOnce)
{
    ASSERT_TRUE(
        module->startToRecordInteractively({"NeckYaw"}, 1, RK::VXSartelRecorder::ModeDefault));
    ASSERT_TRUE(test::waitUntil([] { return motionRecorder().isRecording(); }));
    motionRecorder().requestStorePosition();
    ASSERT_TRUE(test::waitUntil([&] { return events.count(QStringLiteral("stopped")) == 2; }));
    module->stopRecording();
    ASSERT_TRUE(seen(QStringLiteral("received")));

    events.clear();
    module->setTimeStep(0.02);
    ASSERT_TRUE(module->startToRecordPeriodically({"LArmGrip"}, {}, VX::VXValue(), 2));
    ASSERT_TRUE(seen(QStringLiteral("stopped")));
    // The robot raised "Recording" before its call: an event raised now
    // comes after it on the same path.
    robot().scenario().raiseMicroEvent("VXMotionRecorder/CurrentFrame", wz::AnyValue(99));
    ASSERT_TRUE(seen(QStringLiteral("step 99")));
    EXPECT_EQ(events.count(QStringLiteral("stopped")), 1) << events.join(", ").toStdString();
}

TEST_F(RecorderTest, PeriodicRecordingWithReplay)
{
    module->setTimeStep(0.02);
    const VX::VXValue replay(std::vector<VX::VXValue> {VX::VXValue(std::vector<float> {0.1f}),
                                                       VX::VXValue(std::vector<float> {0.5f}),
                                                       VX::VXValue(std::vector<float> {0.9f})});
    ASSERT_TRUE(module->startToRecordPeriodically({"LArmGrip"}, {"LArmGrip"}, replay, 3));
    ASSERT_TRUE(seen(QStringLiteral("stopped")));
    ASSERT_TRUE(seen(QStringLiteral("step 2")));
    for (int step = 0; step < 3; ++step)
        EXPECT_TRUE(events.contains(QStringLiteral("replayed %1").arg(step)));
    // Only the end of the robot's call: the periodic mode does not listen to "Recording".
    EXPECT_EQ(events.count(QStringLiteral("stopped")), 1);
    const sim::Args args
        = robot().scenario().calls("VXMotionRecorder", "startPeriodicRecording")[0];
    EXPECT_NEAR(args[3].toDouble(), 0.02, 1e-6);

    module->stopRecording();
    ASSERT_TRUE(seen(QStringLiteral("received")));
    // Each recorded pose is the replayed angle of its step.
    const VX::VXValue &poses = received[0][1];
    ASSERT_EQ(poses.getSize(), 3);
    EXPECT_NEAR(poses[0][0].toFloat(), 0.1f, 1e-6);
    EXPECT_NEAR(poses[2][0].toFloat(), 0.9f, 1e-6);
}

TEST_F(RecorderTest, DisconnectionDuringARecording)
{
    module->setTimeStep(0.02);
    ASSERT_TRUE(module->startToRecordPeriodically(
        {"NeckYaw"}, {"LArmGrip"},
        VX::VXValue(std::vector<VX::VXValue> {VX::VXValue(std::vector<float> {0.3f})}), 1000));
    ASSERT_TRUE(seen(QStringLiteral("replayed 2")));
    ASSERT_TRUE(recorder->disconnectAndWait());
    EXPECT_TRUE(test::waitUntil([] { return !robot().isRegistered("VXSartelRecorder"); }));
    // The application's copy outlives the connection and fetches nothing.
    module->stopRecording();
    EXPECT_TRUE(motionRecorder().isRecording());
}

} // namespace
