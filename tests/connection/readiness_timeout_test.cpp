#include "robot_fixture.h"

#include <chrono>

using namespace std::chrono_literals;

namespace {

class ReadinessTimeoutTest : public test::RobotTest
{
};

// A robot that answers false for ever: 80 waits of 250 ms, then the attempt
// fails. The first test only binds the memory service, so the key is asked
// exactly once per wait.
TEST_F(ReadinessTimeoutTest, RobotNeverReadyFailsAfterEightyWaits)
{
    robot().scenario().holdReadiness();
    const uint64_t before = robot().scenario().callCount("VXMemory", "getData");
    test::Recorder r;
    r.connectTo(robot());
    ASSERT_TRUE(r.waitFor(QStringLiteral("disconnected"), 40000));
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
    EXPECT_TRUE(test::processUntil([&] { return r.workerCount() == 0; }));
}

// Readiness that comes late but within the limit is simply waited for.
TEST_F(ReadinessTimeoutTest, LateReadinessIsWaitedFor)
{
    robot().scenario().holdReadinessFor(1200ms);
    test::Recorder r;
    EXPECT_TRUE(r.connectAndWait(robot()));
    EXPECT_TRUE(r.errors.empty());
}

} // namespace
