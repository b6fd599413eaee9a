#include "sartel_fixture.h"

#include <connection/platform.h>

#include <chrono>
#include <cmath>

using namespace std::chrono_literals;

namespace {

// The pose reports of one interface, as they reach this thread.
class PoseListener : public QObject
{
public:
    struct Reading
    {
        std::vector<std::string> joints;
        std::vector<float> values;
    };

    explicit PoseListener(RK::SartelModuleInterface &module)
    {
        using I = RK::SartelModuleInterface;
        connect(&module, &I::motorAnglesChanged, this,
                [this](const std::vector<std::string> &j, const std::vector<float> &v) {
                    angles.push_back({j, v});
                });
        connect(&module, &I::motorStiffnessesChanged, this,
                [this](const std::vector<std::string> &j, const std::vector<float> &v) {
                    if (stiffnesses.empty())
                        statesBeforeStiffness = states.size();
                    stiffnesses.push_back({j, v});
                });
        connect(&module, &I::robotStateChanged, this,
                [this](bool awake) { states.push_back(awake); });
        connect(&module, &I::torsoPositionChanged, this,
                [this](const std::vector<float> &v) { torso.push_back(v); });
        connect(&module, &I::connectionLost, this, [this] { ++lost; });
        connect(&module, &I::dataSubscribedChanged, this,
                [this](const QString &name, const VX::VXValue &value) {
                    polled.push_back({name, value});
                });
    }

    int polledCount(const QString &name) const
    {
        int n = 0;
        for (const auto &p : polled)
            n += p.first == name;
        return n;
    }

    std::vector<Reading> angles;
    std::vector<Reading> stiffnesses;
    std::vector<bool> states;
    // A tick whose stiffness came before this listener did still tells its
    // awake state to it.
    size_t statesBeforeStiffness = 0;
    std::vector<std::vector<float>> torso;
    std::vector<std::pair<QString, VX::VXValue>> polled;
    int lost = 0;
};

float valueOf(const PoseListener::Reading &r, const std::string &joint)
{
    for (size_t i = 0; i < r.joints.size() && i < r.values.size(); ++i) {
        if (r.joints[i] == joint)
            return r.values[i];
    }
    ADD_FAILURE() << "no joint " << joint;
    return NAN;
}

class PosePollingTest : public test::SartelTest
{
protected:
    void connectAndListen()
    {
        // Stiffness every 150 ms rather than 500: the cases count its ticks.
        timing.mediumPollMs = 150;
        connect();
        listener = std::make_unique<PoseListener>(*module);
    }
    void TearDown() override
    {
        listener.reset();
        SartelTest::TearDown();
    }

    std::unique_ptr<PoseListener> listener;
};

TEST_F(PosePollingTest, WithoutThePoseFlagOnlyStiffnessAndAwakeStateArePolled)
{
    connectAndListen();
    ASSERT_TRUE(test::waitUntil([&] { return listener->stiffnesses.size() >= 2; }));
    drain();
    const PoseListener::Reading &first = listener->stiffnesses.front();
    EXPECT_EQ(first.joints, sim::MotionService::jointNames());
    EXPECT_EQ(first.joints.size(), 25u);
    EXPECT_EQ(first.values, std::vector<float>(25, 0.0f));
    ASSERT_FALSE(listener->states.empty());
    EXPECT_FALSE(listener->states.back());
    // Each stiffness read is followed by the awake state.
    EXPECT_EQ(listener->states.size() - listener->statesBeforeStiffness,
              listener->stiffnesses.size());
    EXPECT_TRUE(listener->angles.empty());
    EXPECT_TRUE(listener->torso.empty());
    EXPECT_EQ(callCount("VXMotion", "getAngles"), 0u);
    // The names are asked once and kept.
    EXPECT_EQ(callCount("VXMotion", "getBodyNames"), 1u);

    // A command of the robot is seen at the next read.
    connection->motion()->post.wakeUp();
    ASSERT_TRUE(
        test::waitUntil([&] { return !listener->states.empty() && listener->states.back(); }));
    ASSERT_TRUE(
        test::waitUntil([&] { return valueOf(listener->stiffnesses.back(), "NeckYaw") == 1.0f; }));
    EXPECT_TRUE(listener->angles.empty());
    EXPECT_EQ(callCount("VXMotion", "getBodyNames"), 1u);
}

TEST_F(PosePollingTest, ThePoseFlagAddsAnglesAndTorso)
{
    motion().configure(sim::anyFromJson(R"({"angles": {"NeckYaw": 0.25, "LLegKneePitch": 1.0}})"));
    connectAndListen();
    module->robotPoseUpdateNeeded(true);
    ASSERT_TRUE(test::waitUntil(
        [&] { return listener->angles.size() >= 3 && listener->torso.size() >= 3; }));
    const PoseListener::Reading &reading = listener->angles.back();
    EXPECT_EQ(reading.joints, sim::MotionService::jointNames());
    ASSERT_EQ(reading.values.size(), 25u);
    EXPECT_FLOAT_EQ(valueOf(reading, "NeckYaw"), 0.25f);
    EXPECT_FLOAT_EQ(valueOf(reading, "LLegKneePitch"), 1.0f);
    // The robot has the device layer: sensor values are asked for.
    ASSERT_FALSE(calls("VXMotion", "getAngles").empty());
    EXPECT_EQ(calls("VXMotion", "getAngles").back(),
              (sim::Args {wz::AnyValue("Body"), wz::AnyValue(true)}));
    EXPECT_EQ(listener->torso.back(), motion().getPosition("Torso", 1, true));
    EXPECT_EQ(listener->torso.back().size(), 6u);
    EXPECT_EQ(callCount("VXMotion", "getPosition"), 0u);

    // A motion is followed while it runs, and seen where it ends.
    connection->motion()->post.angleInterpolationWithSpeed(VX::VXValue("NeckYaw"),
                                                           VX::VXValue(-0.75f), 1.0f);
    ASSERT_TRUE(
        test::waitUntil([&] { return valueOf(listener->angles.back(), "NeckYaw") == -0.75f; }));
    int between = 0;
    for (const PoseListener::Reading &r : listener->angles) {
        const float v = valueOf(r, "NeckYaw");
        between += v < 0.25f && v > -0.75f;
    }
    EXPECT_GE(between, 1) << "a one-radian move at 3 rad/s spans several 60 ms ticks";

    // Without the flag, angles and torso stop; stiffness goes on.
    module->robotPoseUpdateNeeded(false);
    drain();
    const size_t angles = listener->angles.size();
    const size_t torso = listener->torso.size();
    const size_t stiffnesses = listener->stiffnesses.size();
    // Two stiffness ticks later, several angle ticks would have come.
    ASSERT_TRUE(test::waitUntil([&] { return listener->stiffnesses.size() >= stiffnesses + 2; }));
    EXPECT_EQ(listener->angles.size(), angles);
    EXPECT_EQ(listener->torso.size(), torso);
    EXPECT_GT(listener->stiffnesses.size(), stiffnesses);
}

TEST_F(PosePollingTest, OlderRobotsAnswerTheFallBacks)
{
    robot().scenario().removeMethod("VXMotion", "getBodyNames");
    robot().scenario().removeMethod("VXMotion", "_getRealTorsoInWorld");
    // No device layer: commanded values are asked for.
    robot().scenario().omitService("DCM");
    connectAndListen();
    EXPECT_FALSE(connection->hasDCM());
    module->robotPoseUpdateNeeded(true);
    ASSERT_TRUE(test::waitUntil(
        [&] { return listener->angles.size() >= 3 && listener->torso.size() >= 3; }));
    EXPECT_EQ(listener->angles.back().joints, sim::MotionService::jointNames());
    EXPECT_EQ(callCount("VXMotion", "getJointNames"), 1u);
    EXPECT_EQ(calls("VXMotion", "getAngles").back(),
              (sim::Args {wz::AnyValue("Body"), wz::AnyValue(false)}));
    // The torso falls back on every tick: the missing method is not remembered.
    EXPECT_GE(callCount("VXMotion", "getPosition"), listener->torso.size());
    EXPECT_EQ(calls("VXMotion", "getPosition").back(),
              (sim::Args {wz::AnyValue("Torso"), wz::AnyValue(1), wz::AnyValue(true)}));
    EXPECT_EQ(listener->torso.back(), motion().getPosition("Torso", 1, true));
    EXPECT_EQ(listener->lost, 0);
}

TEST_F(PosePollingTest, EmptyNamesAreAskedAgain)
{
    robot().scenario().replaceMethod("VXMotion", "getBodyNames", [](const sim::Args &) {
        return wz::AnyValue(wz::AnyValue::List {});
    });
    connectAndListen();
    ASSERT_TRUE(robot().scenario().waitForCalls("VXMotion", "getBodyNames", 3, test::patience()));
    robot().scenario().restoreMethod("VXMotion", "getBodyNames");
    ASSERT_TRUE(test::waitUntil([&] {
        return !listener->stiffnesses.empty() && !listener->stiffnesses.back().joints.empty();
    }));
    EXPECT_EQ(listener->stiffnesses.back().joints, sim::MotionService::jointNames());
    EXPECT_TRUE(listener->stiffnesses.front().joints.empty());
}

TEST_F(PosePollingTest, WatchedKeysArePolledDoubledAndDroppedAfterAFailure)
{
    robot().scenario().setKey("Test/Temperature", wz::AnyValue(40));
    robot().scenario().setKey("Test/Other", wz::AnyValue("x"));
    connectAndListen();
    const auto reads = [] {
        int n = 0;
        for (const sim::Args &a : calls("VXMemory", "getData"))
            n += a.at(0) == wz::AnyValue("Test/Temperature");
        return n;
    };

    emit module->addWatchedDataRequested(QStringLiteral("Test/Temperature"));
    emit module->addWatchedDataRequested(QStringLiteral("Test/Temperature"));
    emit module->addWatchedDataRequested(QStringLiteral("Test/Other"));
    ASSERT_TRUE(test::waitUntil([&] { return listener->polledCount("Test/Temperature") >= 6; }));
    drain();
    // Two calls and two signals on every tick, and only one route.
    EXPECT_EQ(listener->polledCount("Test/Temperature") % 2, 0);
    EXPECT_EQ(listener->polledCount("Test/Temperature"), reads());
    for (const auto &p : listener->polled) {
        if (p.first == QLatin1String("Test/Temperature")) {
            EXPECT_EQ(p.second, VX::VXValue(40));
            break;
        }
    }

    robot().scenario().setKey("Test/Temperature", wz::AnyValue(41));
    ASSERT_TRUE(test::waitUntil([&] {
        for (const auto &p : listener->polled)
            if (p.second == VX::VXValue(41))
                return true;
        return false;
    }));

    // The key goes on the robot: both entries leave the watch at once, silently.
    wz::log::LogCapture logs;
    robot().scenario().removeKey("Test/Temperature");
    const int otherBefore = listener->polledCount("Test/Other");
    ASSERT_TRUE(
        test::waitUntil([&] { return listener->polledCount("Test/Other") > otherBefore + 3; }));
    const int after = reads();
    const int seen = listener->polledCount("Test/Temperature");
    const int otherNow = listener->polledCount("Test/Other");
    ASSERT_TRUE(
        test::waitUntil([&] { return listener->polledCount("Test/Other") > otherNow + 3; }));
    EXPECT_LE(reads(), after + 1);
    EXPECT_EQ(listener->polledCount("Test/Temperature"), seen);
    EXPECT_TRUE(logs.find("con.connection", "").empty());
    EXPECT_EQ(listener->lost, 0);

    // Removing a watched key takes every occurrence of it.
    emit module->addWatchedDataRequested(QStringLiteral("Test/Other"));
    emit module->removeWatchedDataRequested(QStringLiteral("Test/Other"));
    drain();
    const int others = listener->polledCount("Test/Other");
    // Nothing is watched now: two stiffness ticks span several polling ones.
    const size_t stiffnesses = listener->stiffnesses.size();
    ASSERT_TRUE(test::waitUntil([&] { return listener->stiffnesses.size() >= stiffnesses + 2; }));
    EXPECT_EQ(listener->polledCount("Test/Other"), others);
}

TEST_F(PosePollingTest, ConnectionLostIsToldAgainOnEveryFailedTick)
{
    connectAndListen();
    robot().scenario().failMethod("VXMotion", "getStiffnesses", "motion board not answering");
    wz::log::LogCapture logs;
    ASSERT_TRUE(test::waitUntil([&] { return listener->lost >= 3; }));
    const auto lines = logs.find("con.connection",
                                 "An error has been received from Morvane! Connection is lost.\n");
    EXPECT_GE(lines.size(), 3u);
    EXPECT_EQ(lines.front().level, wz::LogLevel_Warning);
    EXPECT_NE(lines.front().message.find("motion board not answering"), std::string::npos);

    // With the pose flag the fast timer fails as well, every 60 ms: six of
    // its failures come with more reports than the slower tick could make.
    robot().scenario().failMethod("VXMotion", "getAngles", "motion board not answering");
    module->robotPoseUpdateNeeded(true);
    drain();
    const int before = listener->lost;
    const uint64_t anglesBefore = callCount("VXMotion", "getAngles");
    ASSERT_TRUE(robot().scenario().waitForCalls("VXMotion", "getAngles", anglesBefore + 6,
                                                test::patience()));
    drain();
    EXPECT_GE(listener->lost - before, 6);
    // Torso reads still work, and the watched keys are not affected.
    EXPECT_FALSE(listener->torso.empty());

    robot().scenario().restoreMethod("VXMotion", "getStiffnesses");
    robot().scenario().restoreMethod("VXMotion", "getAngles");
    ASSERT_TRUE(test::waitUntil([&] { return !listener->angles.empty(); }));
}

} // namespace
