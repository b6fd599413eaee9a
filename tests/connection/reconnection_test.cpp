// The reconnection countdown with a short tick: the back-off, the duplicate
// deliveries of repeated attempts, a user's request, cancelling, and a robot
// killed and started again on the same port.
#include "robot_fixture.h"

#include <connection/reconnection_manager.h>

#include <QSignalSpy>

#include <memory>

namespace {

// The application's side, as it is meant to be wired: reconnect on a loss,
// stop counting once connected again.
void wireLikeAnApplication(RK::ConnectionManager &manager, const sim::Robot &robot)
{
    RK::ReconnectionManager *reconnection = manager.reconnectionManager();
    const std::string host = robot.url().host();
    const int port = robot.url().port();
    QObject::connect(
        &manager, &RK::ConnectionManager::connectionLost, reconnection, [reconnection, host, port] {
            reconnection->startReconnectionProcess(host, port, QStringLiteral("test robot"));
        });
    QObject::connect(&manager, &RK::ConnectionManager::connectionEstablished, reconnection,
                     [reconnection] { reconnection->cancelReconnectionProcess(); });
}

// The countdown's tick, in ms, with the default delays of 30 and 1200 ticks.
void setTick(RK::ConnectionManager &manager, int tickMs)
{
    RK::ConnectionTiming timing = manager.timing();
    timing.reconnectionTickMs = tickMs;
    manager.setTiming(timing);
}

// A port on which nobody listens: taken from a robot that is gone.
int deadPort()
{
    sim::Robot robot;
    robot.start();
    return robot.url().port();
}

class ReconnectionTest : public test::RobotTest
{
protected:
    void SetUp() override
    {
        test::RobotTest::SetUp();
        recorder = std::make_unique<test::Recorder>();
        reconnection = recorder->manager->reconnectionManager();
        ASSERT_TRUE(reconnection);
        setTick(*recorder->manager, 5);
    }
    void TearDown() override
    {
        reconnection->cancelReconnectionProcess();
        recorder.reset();
        test::RobotTest::TearDown();
    }

    std::unique_ptr<test::Recorder> recorder;
    RK::ReconnectionManager *reconnection = nullptr;
};

TEST_F(ReconnectionTest, TheDelayDoublesUpToItsLimit)
{
    QSignalSpy refresh(reconnection,
                       &RK::ReconnectionManager::refreshTimeBeforeReconnectionRequested);
    reconnection->startReconnectionProcess("127.0.0.1", deadPort(), QStringLiteral("x"));
    QList<int> delays {reconnection->delay()};
    // One delivery each, as when every attempt is a fresh process.
    for (int i = 0; i < 7; ++i) {
        reconnection->onReconnectionFailed(QString(), QString(), QString());
        delays << reconnection->delay();
        EXPECT_EQ(reconnection->secondsLeft(), reconnection->delay());
    }
    EXPECT_EQ(delays, (QList<int> {30, 60, 120, 240, 480, 960, 1200, 1200}));
    EXPECT_EQ(refresh.at(0).at(0).toInt(), 30);
    EXPECT_TRUE(reconnection->isCounting());
    reconnection->cancelReconnectionProcess();
    EXPECT_FALSE(reconnection->isCounting());
}

// The delays come from the manager's timing, read again at each start: a
// change between two countdowns applies to the second.
TEST_F(ReconnectionTest, TheDelaysFollowTheManagersTimingAtEachStart)
{
    RK::ConnectionTiming timing = recorder->manager->timing();
    timing.reconnectionTickMs = 1000;
    timing.reconnectionFirstDelay = 3;
    timing.reconnectionMaxDelay = 10;
    recorder->manager->setTiming(timing);
    QSignalSpy refresh(reconnection,
                       &RK::ReconnectionManager::refreshTimeBeforeReconnectionRequested);
    reconnection->startReconnectionProcess("127.0.0.1", deadPort(), QStringLiteral("x"));
    QList<int> delays {reconnection->delay()};
    for (int i = 0; i < 3; ++i) {
        reconnection->onReconnectionFailed(QString(), QString(), QString());
        delays << reconnection->delay();
    }
    EXPECT_EQ(delays, (QList<int> {3, 6, 10, 10}));
    EXPECT_EQ(refresh.at(0).at(0).toInt(), 3);

    reconnection->cancelReconnectionProcess();
    timing.reconnectionFirstDelay = 7;
    recorder->manager->setTiming(timing);
    reconnection->startReconnectionProcess("127.0.0.1", deadPort(), QStringLiteral("x"));
    EXPECT_EQ(reconnection->delay(), 7);
    EXPECT_EQ(reconnection->secondsLeft(), 7);
}

TEST_F(ReconnectionTest, RepeatedAttemptsDeliverOneErrorMoreEachTime)
{
    QSignalSpy failed(reconnection, &RK::ReconnectionManager::reconnectionFailed);
    QSignalSpy refresh(reconnection,
                       &RK::ReconnectionManager::refreshTimeBeforeReconnectionRequested);
    reconnection->startReconnectionProcess("127.0.0.1", deadPort(), QStringLiteral("x"));
    // First attempt after 30 ticks: one link, one failure, the delay doubles once.
    ASSERT_TRUE(test::waitUntil([&] { return failed.count() == 1; }));
    EXPECT_EQ(reconnection->delay(), 60);
    // The countdown ran 29 down to 0, then -1 with the attempt.
    EXPECT_EQ(refresh.at(30).at(0).toInt(), 0);
    EXPECT_EQ(refresh.at(31).at(0).toInt(), -1);
    EXPECT_EQ(refresh.at(32).at(0).toInt(), 60);
    // Second attempt: two links now, so one error doubles twice.
    ASSERT_TRUE(test::waitUntil([&] { return failed.count() == 3; }));
    EXPECT_EQ(reconnection->delay(), 240);
    EXPECT_FALSE(failed.at(2).at(0).toBool());
}

TEST_F(ReconnectionTest, AUsersRequestStartsAtOnceAndFailsBackTo30)
{
    setTick(*recorder->manager, 1000); // no automatic attempt in this case
    QSignalSpy requested(reconnection, &RK::ReconnectionManager::reconnectionRequested);
    QSignalSpy failed(reconnection, &RK::ReconnectionManager::reconnectionFailed);
    reconnection->startReconnectionProcess("127.0.0.1", deadPort(), QStringLiteral("x"));
    reconnection->onReconnectionFailed(QString(), QString(), QString()); // delay 60
    failed.clear();
    reconnection->onReconnectionRequestedByUser();
    EXPECT_EQ(requested.count(), 1);
    EXPECT_FALSE(reconnection->isCounting());
    ASSERT_TRUE(test::waitUntil([&] { return failed.count() == 1; }));
    EXPECT_TRUE(failed.at(0).at(0).toBool());
    EXPECT_EQ(reconnection->delay(), 30);
    EXPECT_TRUE(reconnection->isCounting());

    // The user's attempt is over: the next automatic failure is told once,
    // as automatic (one error reaches every link in the same emission).
    reconnection->onReconnectionRequested();
    ASSERT_TRUE(test::waitUntil([&] { return failed.count() >= 2; }));
    EXPECT_EQ(failed.count(), 2);
    EXPECT_FALSE(failed.at(1).at(0).toBool());
    EXPECT_EQ(reconnection->delay(), 60);
}

TEST_F(ReconnectionTest, CancelWhileIdleAndReconnectWithoutAStart)
{
    reconnection->cancelReconnectionProcess();
    EXPECT_FALSE(reconnection->isCounting());
    EXPECT_EQ(reconnection->delay(), 0);
    // Nothing was kept: the empty address and port -1 go to the manager,
    // which refuses them.
    reconnection->reconnect();
    ASSERT_TRUE(recorder->waitFor(QStringLiteral("disconnected")));
    EXPECT_EQ(recorder->count(QStringLiteral("connectionEstablished")), 0);
    QString ip;
    int port = 0;
    QString name;
    recorder->manager->getLastConnectionInfo(ip, port, name);
    EXPECT_EQ(ip, QString());
    EXPECT_EQ(port, -1);
}

// Its own robot, which it kills and starts again on the same port.
TEST(ReconnectionRestart, TheManagerReconnectsByItselfAfterARestart)
{
    auto robot = std::make_unique<sim::Robot>();
    robot->start();
    const std::string url = robot->url().str();
    test::Recorder recorder;
    RK::ReconnectionManager *reconnection = recorder.manager->reconnectionManager();
    setTick(*recorder.manager, 10);
    wireLikeAnApplication(*recorder.manager, *robot);
    QSignalSpy failed(reconnection, &RK::ReconnectionManager::reconnectionFailed);
    ASSERT_TRUE(recorder.connectAndWait(*robot));

    robot.reset();
    ASSERT_TRUE(recorder.waitFor(QStringLiteral("connectionLost")));
    EXPECT_TRUE(reconnection->isCounting());
    // One attempt finds nobody, then the robot comes back on its port.
    ASSERT_TRUE(test::waitUntil([&] { return failed.count() == 1; }));
    sim::RobotOptions options;
    options.listenUrl = url;
    robot = std::make_unique<sim::Robot>(options);
    robot->start();
    ASSERT_TRUE(test::waitUntil(
        [&] { return recorder.count(QStringLiteral("connectionEstablished")) == 2; }));
    EXPECT_FALSE(reconnection->isCounting());
    EXPECT_TRUE(recorder.manager->isConnected());
    ASSERT_TRUE(recorder.disconnectAndWait());
}

} // namespace
