#include "charge_interface.h"
#include "robot_fixture.h"

#include "connection_manager_p.h"
#include "connection_p.h"

#include <vx/vxproxies.h>

#include <QSignalSpy>

#include <chrono>
#include <memory>

using namespace std::chrono_literals;

namespace {

// The frame over a real remote service of the robot, through a connection
// made by the manager.
class FrameTest : public test::RobotTest
{
protected:
    void SetUp() override
    {
        test::RobotTest::SetUp();
        // A charge that only this test's robot would give.
        robot().scenario().replaceMethod("VXBattery", "getBatteryCharge",
                                         [](const sim::Args &) { return wz::AnyValue(42); });
        recorder = std::make_unique<test::Recorder>();
        ASSERT_TRUE(recorder->connectAndWait(robot()));
        connection = RK::currentConnection(*recorder->manager);
        ASSERT_TRUE(connection);
        ASSERT_TRUE(connection->batteryDevice());
        probe = std::make_unique<test::ChargeInterface>(connection,
                                                        QStringLiteral("ChargeInterface"));
    }
    void TearDown() override
    {
        probe.reset();
        connection.reset();
        recorder.reset();
        test::RobotTest::TearDown();
    }

    uint64_t calls() const { return robot().scenario().callCount("VXBattery", "getBatteryCharge"); }

    std::unique_ptr<test::Recorder> recorder;
    boost::shared_ptr<RK::Connection> connection;
    std::unique_ptr<test::ChargeInterface> probe;
};

TEST_F(FrameTest, RequestBySignalAndByFuture)
{
    EXPECT_EQ(probe->executerThread()->objectName(), QStringLiteral("ChargeInterface thread"));

    QSignalSpy updated(probe.get(), &test::ChargeInterface::chargeUpdated);
    probe->getCharge();
    ASSERT_TRUE(test::waitUntil([&] { return updated.count() > 0; }));
    EXPECT_EQ(updated.at(0).at(0).toInt(), 42);

    QFuture<int> future = probe->charge();
    EXPECT_EQ(future.result(), 42);
    // The finished wrapper leaves no trace.
    EXPECT_TRUE(test::waitUntil([&] { return probe->pendingFutures() == 0; }));
}

TEST_F(FrameTest, RemoteFailureBecomesTheErrorSignal)
{
    robot().scenario().failMethod("VXBattery", "getBatteryCharge", "cell 3 overheating");
    QSignalSpy errors(probe.get(), &test::ChargeInterface::error);
    QSignalSpy updated(probe.get(), &test::ChargeInterface::chargeUpdated);
    probe->getCharge();
    ASSERT_TRUE(test::waitUntil([&] { return errors.count() > 0; }));
    EXPECT_EQ(errors.at(0).at(0).toString(), QStringLiteral("VXBattery"));
    EXPECT_TRUE(errors.at(0).at(2).toString().contains(QStringLiteral("cell 3 overheating")));
    EXPECT_EQ(updated.count(), 0);
    EXPECT_EQ(probe->charge().result(), -1);
}

TEST_F(FrameTest, TeardownWaitsForAPoolCallStillRunning)
{
    robot().scenario().delayMethod("VXBattery", "getBatteryCharge", 300ms);
    const uint64_t before = calls();
    QFuture<int> future = probe->charge();
    ASSERT_TRUE(robot().scenario().waitForCalls("VXBattery", "getBatteryCharge", before + 1,
                                                test::patience()));
    probe.reset();
    ASSERT_TRUE(future.isFinished());
    EXPECT_EQ(future.result(), 42);
}

TEST_F(FrameTest, RequestAfterTeardownIsNeverRun)
{
    robot().scenario().delayMethod("VXBattery", "getBatteryCharge", 300ms);
    const uint64_t before = calls();
    probe->getCharge();
    probe->getCharge();
    probe->getCharge();
    ASSERT_TRUE(robot().scenario().waitForCalls("VXBattery", "getBatteryCharge", before + 1,
                                                test::patience()));
    probe.reset(); // waits for the running slot only
    robot().scenario().restoreMethod("VXBattery", "getBatteryCharge");
    // A call over the same connection reaches the robot after any made before it.
    EXPECT_TRUE(connection->memory()->getData("MorvaneReady").toBool());
    EXPECT_EQ(calls(), before + 1);
}

TEST_F(FrameTest, AfterDisconnectionRequestsEndQuietly)
{
    // The application kept the interface past disconnected(): its thread
    // still runs, but the connection can no longer be locked.
    connection.reset();
    ASSERT_TRUE(recorder->disconnectAndWait());
    const uint64_t before = calls();
    QSignalSpy updated(probe.get(), &test::ChargeInterface::chargeUpdated);
    QSignalSpy errors(probe.get(), &test::ChargeInterface::error);
    probe->getCharge();
    EXPECT_EQ(probe->charge().result(), -1);
    ASSERT_TRUE(test::barrier(probe->executer()));
    EXPECT_EQ(updated.count(), 0);
    EXPECT_EQ(errors.count(), 0);
    EXPECT_EQ(calls(), before);
}

} // namespace
