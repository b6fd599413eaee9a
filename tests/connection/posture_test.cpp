#include "robot_fixture.h"

#include "connection_p.h"
#include <connection/robot_posture_interface.h>

#include <sim/motion_service.h>
#include <sim/robot_posture_service.h>

#include <memory>
#include <vector>

namespace {

class PostureTest : public test::RobotTest
{
protected:
    void SetUp() override
    {
        test::RobotTest::SetUp();
        motion().resetPose();
        recorder = std::make_unique<test::Recorder>();
        ASSERT_TRUE(recorder->connectAndWait(robot()));
        posture = recorder->manager->robotPostureInterface();
        ASSERT_TRUE(posture);
        QObject::connect(posture.get(), &RK::RobotPostureInterface::robotPoseReached, &context,
                         [this](bool ok) { reached.push_back(ok); });
        QObject::connect(posture.get(), &RK::RobotPostureInterface::postureFamilyChanged, &context,
                         [this](const QString &f) { families << f; });
        QObject::connect(posture.get(), &RK::RobotPostureInterface::displayErrorRequested, &context,
                         [this](const QString &, const QString &contents, const QString &, bool) {
                             errors << contents;
                         });
    }
    void TearDown() override
    {
        posture.reset();
        recorder.reset();
        motion().resetPose();
        test::RobotTest::TearDown();
    }

    static sim::MotionService &motion()
    {
        return *robot().serviceAs<sim::MotionService>("VXMotion");
    }
    bool answers(size_t n)
    {
        return test::waitUntil([&] { return reached.size() + errors.size() >= n; });
    }

    QObject context;
    std::unique_ptr<test::Recorder> recorder;
    boost::shared_ptr<RK::RobotPostureInterface> posture;
    std::vector<bool> reached;
    QStringList families;
    QStringList errors;
};

TEST_F(PostureTest, PosturesAndTheirFamily)
{
    EXPECT_EQ(posture->postureFamily().result(), QStringLiteral("Crouching"));

    // Limp: applying is refused, going there stiffens the robot first.
    posture->setPose(QStringLiteral("Stand"), 1.0f);
    ASSERT_TRUE(answers(1));
    EXPECT_FALSE(reached[0]);
    posture->goToPose(QStringLiteral("Stand"), 1.0f);
    ASSERT_TRUE(answers(2));
    EXPECT_TRUE(reached[1]);
    EXPECT_EQ(motion().getStiffnesses(wz::AnyValue("Body")).front(), 1.0f);
    ASSERT_TRUE(test::waitUntil([&] { return families.contains(QStringLiteral("Standing")); }));
    EXPECT_EQ(posture->postureFamily().result(), QStringLiteral("Standing"));

    // Stiff now: applying works, and each change of family is told once.
    posture->setPose(QStringLiteral("Sit"), 1.0f);
    ASSERT_TRUE(answers(3));
    EXPECT_TRUE(reached[2]);
    ASSERT_TRUE(test::waitUntil([&] { return families.contains(QStringLiteral("Sitting")); }));
    EXPECT_EQ(families.count(QStringLiteral("Standing")), 1);
    // Joints moved by hand away from every posture.
    motion().setAngleNow("NeckYaw", 1.5f);
    ASSERT_TRUE(test::waitUntil([&] { return families.contains(QStringLiteral("Unknown")); }));
    EXPECT_TRUE(errors.isEmpty());
}

TEST_F(PostureTest, FailuresGiveAnErrorAndNoAnswer)
{
    posture->goToPose(QStringLiteral("Handstand"), 1.0f);
    ASSERT_TRUE(answers(1));
    ASSERT_EQ(errors.size(), 1);
    EXPECT_EQ(errors[0], QStringLiteral("Function call for goToPosture failed"));
    EXPECT_TRUE(reached.empty());

    // A robot that cannot tell: the family is empty.
    robot().scenario().failMethod("VXRobotPosture", "getPostureFamily", "module restarting");
    EXPECT_EQ(posture->postureFamily().result(), QString());
}

TEST_F(PostureTest, NothingAfterTheConnectionIsGone)
{
    ASSERT_TRUE(recorder->disconnectAndWait());
    EXPECT_EQ(posture->postureFamily().result(), QString());
    posture->goToPose(QStringLiteral("Stand"), 1.0f);
    // A later family request passes the same (silent) road.
    EXPECT_EQ(posture->postureFamily().result(), QString());
    EXPECT_TRUE(reached.empty());
    EXPECT_TRUE(errors.isEmpty());
}

} // namespace
