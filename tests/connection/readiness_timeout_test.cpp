#include "robot_fixture.h"

#include <chrono>

using namespace std::chrono_literals;

namespace {

class ReadinessTimeoutTest : public test::RobotTest
{
protected:
    // The limit and the step in the ratio of the real ones (20 s, 250 ms),
    // so that the attempt still gives up after 80 waits.
    static RK::ConnectionTiming shortReadiness(int stepMs)
    {
        RK::ConnectionTiming timing;
        timing.readinessStepMs = stepMs;
        timing.readinessLimitMs = 80 * stepMs;
        return timing;
    }
};

// A robot that answers false for ever: 80 waits of one step, then the attempt
// fails. The first test only binds the memory service, so the key is asked
// exactly once per wait.
TEST_F(ReadinessTimeoutTest, RobotNeverReadyFailsAfterEightyWaits)
{
    robot().scenario().holdReadiness();
    const uint64_t before = robot().scenario().callCount("VXMemory", "getData");
    test::Recorder r;
    r.manager->setTiming(shortReadiness(10));
    r.connectTo(robot());
    ASSERT_TRUE(r.waitFor(QStringLiteral("disconnected")));
    ASSERT_EQ(r.errors.size(), 1u);
    EXPECT_EQ(r.errors[0].title, QStringLiteral("ConnectionError"));
    EXPECT_EQ(r.errors[0].contents, QStringLiteral("Cannot connect to Morvane"));
    EXPECT_EQ(r.errors[0].details, QStringLiteral("Morvane was not ready yet."));
    EXPECT_EQ(robot().scenario().callCount("VXMemory", "getData") - before, 80u);
    for (const auto &args : robot().scenario().calls("VXMemory", "getData")) {
        ASSERT_EQ(args.size(), 1u);
        EXPECT_EQ(args[0].toStr(), "MorvaneReady");
    }
    EXPECT_EQ(r.count(QStringLiteral("connectionEstablished")), 0);
    EXPECT_TRUE(test::waitUntil([&] { return r.workerCount() == 0; }));
}

// Readiness that comes late but within the limit is simply waited for.
TEST_F(ReadinessTimeoutTest, LateReadinessIsWaitedFor)
{
    robot().scenario().holdReadinessFor(300ms);
    test::Recorder r;
    r.manager->setTiming(shortReadiness(25)); // a 2 s limit
    EXPECT_TRUE(r.connectAndWait(robot()));
    EXPECT_TRUE(r.errors.empty());
}

// What tests shorten, an application gets in full: the limits it was made for.
TEST(ConnectionTimingTest, AManagerStartsWithTheRealLimits)
{
    RK::ConnectionManager manager;
    EXPECT_EQ(manager.timing().readinessStepMs, 250);
    EXPECT_EQ(manager.timing().readinessLimitMs, 20000);
    EXPECT_EQ(manager.timing().connectionTestLimitMs, 15000);
    EXPECT_EQ(manager.timing().fastPollMs, 60);
    EXPECT_EQ(manager.timing().mediumPollMs, 500);
}

} // namespace
