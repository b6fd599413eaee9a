#include "robot_fixture.h"

#include "connection_p.h"
#include <connection/robot_state_receiver.h>

#include <sim/motion_service.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

using namespace std::chrono_literals;

namespace test {

// Collects an executer's error signals on the test's thread.
class ErrorSink : public QObject
{
    Q_OBJECT

public:
    QStringList titles;
    QStringList contents;
    QStringList details;

public slots:
    void onError(QString title, QString content, QString detail)
    {
        titles << title;
        contents << content;
        details << detail;
    }
};

} // namespace test

namespace {

class MotionTest : public test::RobotTest
{
protected:
    void SetUp() override
    {
        test::RobotTest::SetUp();
        motion().resetPose();
        recorder = std::make_unique<test::Recorder>();
        ASSERT_TRUE(recorder->connectAndWait(robot()));
        receiver = recorder->manager->robotStateReceiver();
        ASSERT_TRUE(receiver);
        QObject::connect(receiver->executerObject(), SIGNAL(error(QString, QString, QString)),
                         &errors, SLOT(onError(QString, QString, QString)), Qt::QueuedConnection);
    }
    void TearDown() override
    {
        receiver.reset();
        recorder.reset();
        motion().resetPose();
        test::RobotTest::TearDown();
    }

    static sim::MotionService &motion()
    {
        return *robot().serviceAs<sim::MotionService>("VXMotion");
    }
    static float angle(const std::string &joint)
    {
        return motion().getAngles(wz::AnyValue(joint), false).front();
    }
    static float stiffness(const std::string &joint)
    {
        return motion().getStiffnesses(wz::AnyValue(joint)).front();
    }
    static uint64_t calls(const char *method)
    {
        return robot().scenario().callCount("VXMotion", method);
    }

    std::unique_ptr<test::Recorder> recorder;
    boost::shared_ptr<RK::RobotStateReceiver> receiver;
    test::ErrorSink errors;
};

TEST_F(MotionTest, PostedMovesDoNotWaitForEachOther)
{
    // A slow move of the head (about 7 s), then at once a quick one of the arm.
    receiver->sendMotorAngles(RobotPose {{QStringLiteral("NeckYaw"), 2.0}}, 0.1f);
    receiver->sendMotorAngles(RobotPose {{QStringLiteral("LArmGrip"), 1.0}}, 1.0f);
    ASSERT_TRUE(robot().scenario().waitForCalls("VXMotion", "angleInterpolationWithSpeed", 2,
                                                test::patience()));
    ASSERT_TRUE(test::waitUntil([] { return angle("LArmGrip") > 0.99f; }));
    EXPECT_LT(angle("NeckYaw"), 1.9f) << "the head is still on its way";
    // Both moves reached the robot; calls run side by side there, so the
    // order the robot records them in is its threads', not the desktop's.
    std::vector<std::string> joints;
    for (const sim::Args &call :
         robot().scenario().calls("VXMotion", "angleInterpolationWithSpeed"))
        joints.push_back(call[0].toList()[0].toStr());
    std::sort(joints.begin(), joints.end());
    EXPECT_EQ(joints, (std::vector<std::string> {"LArmGrip", "NeckYaw"}));
    EXPECT_TRUE(errors.titles.isEmpty());
}

TEST_F(MotionTest, BlockingMoveEndsAtItsTarget)
{
    // The names reach the robot in the map's order.
    receiver->sendMotorAnglesBlocking(
        RobotPose {{QStringLiteral("NeckYaw"), 0.3}, {QStringLiteral("LArmGrip"), 0.5}}, 1.0f);
    EXPECT_NEAR(angle("NeckYaw"), 0.3f, 1e-4);
    EXPECT_NEAR(angle("LArmGrip"), 0.5f, 1e-4);
    const sim::Args args = robot().scenario().calls("VXMotion", "angleInterpolationWithSpeed")[0];
    EXPECT_EQ(args[0].toList()[0].toStr(), "LArmGrip");
    EXPECT_EQ(args[0].toList()[1].toStr(), "NeckYaw");

    // An empty pose goes nowhere.
    receiver->sendMotorAnglesBlocking(RobotPose(), 1.0f);
    receiver->sendMotorAngles(RobotPose(), 1.0f);
    receiver->changeMotorAngles(RobotPose(), 1.0f);
    EXPECT_EQ(calls("angleInterpolationWithSpeed"), 1u);

    // Relative moves.
    receiver->changeMotorAngles(RobotPose {{QStringLiteral("NeckYaw"), 0.2}}, 1.0f);
    EXPECT_TRUE(test::waitUntil([] { return std::fabs(angle("NeckYaw") - 0.5f) < 1e-3; }));
}

TEST_F(MotionTest, FailuresOfMovesAndTheirReports)
{
    robot().scenario().failMethod("VXMotion", "angleInterpolationWithSpeed", "joint too hot");
    receiver->sendMotorAnglesBlocking(RobotPose {{QStringLiteral("NeckYaw"), 0.3}}, 1.0f);
    ASSERT_TRUE(test::waitUntil([&] { return errors.titles.size() == 1; }));
    EXPECT_EQ(errors.titles[0], QStringLiteral("VXMotion"));
    EXPECT_EQ(errors.contents[0], QStringLiteral("Failed to call angleInterpolationWithSpeed"));
    EXPECT_TRUE(errors.details[0].contains(QStringLiteral("joint too hot")));

    // A failing relative move is only logged; the later blocking move shows
    // that it has been handled.
    robot().scenario().failMethod("VXMotion", "changeAngles", "joint too hot");
    receiver->changeMotorAngles(RobotPose {{QStringLiteral("NeckYaw"), 0.2}}, 1.0f);
    receiver->sendMotorAnglesBlocking(RobotPose {{QStringLiteral("NeckYaw"), 0.3}}, 1.0f);
    EXPECT_EQ(calls("changeAngles"), 1u);
    ASSERT_TRUE(test::waitUntil([&] { return errors.titles.size() == 2; }));
    EXPECT_EQ(errors.contents[1], QStringLiteral("Failed to call angleInterpolationWithSpeed"));
}

TEST_F(MotionTest, StiffnessWakeUpAndRest)
{
    receiver->setStiffness(QStringLiteral("LArm"), true).waitForFinished();
    ASSERT_TRUE(test::waitUntil([] { return stiffness("LArmGrip") == 1.0f; }));
    EXPECT_EQ(stiffness("RArmGrip"), 0.0f);
    receiver->setStiffness(QStringLiteral("LArmGrip"), false).waitForFinished();
    ASSERT_TRUE(test::waitUntil([] { return stiffness("LArmGrip") == 0.0f; }));
    EXPECT_EQ(stiffness("LArmElbowYaw"), 1.0f);
    // Switched off over 0.2 s, never cut at once.
    const sim::Args off = robot().scenario().calls("VXMotion", "stiffnessInterpolation").back();
    EXPECT_EQ(off[0].toStr(), "LArmGrip");
    EXPECT_EQ(off[1].toDouble(), 0.0);
    EXPECT_NEAR(off[2].toDouble(), 0.2, 1e-6);

    receiver->wakeUp();
    ASSERT_TRUE(test::waitUntil([] { return motion().robotIsWakeUp(); }));
    ASSERT_TRUE(test::waitUntil([] { return stiffness("RLegKneePitch") == 1.0f; }));
    receiver->rest();
    ASSERT_TRUE(test::waitUntil(
        [] { return !motion().robotIsWakeUp() && stiffness("RLegKneePitch") == 0.0f; }));
}

TEST_F(MotionTest, NothingHappensAfterTheConnectionIsGone)
{
    ASSERT_TRUE(recorder->disconnectAndWait());
    QFuture<void> f = receiver->setStiffness(QStringLiteral("Body"), true);
    f.waitForFinished();
    receiver->wakeUp();
    receiver->sendMotorAngles(RobotPose {{QStringLiteral("NeckYaw"), 0.3}}, 1.0f);
    EXPECT_TRUE(errors.titles.isEmpty());
    EXPECT_EQ(calls("stiffnessInterpolation"), 0u);
}

} // namespace

#include "motion_test.moc"
