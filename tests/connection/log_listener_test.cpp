// The robot's log through LogListenerInterface: order and completeness
// under load, the robot-side filters, and teardown while messages flow.
#include "robot_fixture.h"

#include "connection_p.h"
#include <connection/log_listener_interface.h>

#include "executer_thread_p.h"
#include "log_listener_executer_p.h"

#include <sim/device_services.h>

#include <wz/log.h>

#include <QDeadlineTimer>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

class LogListenerTest : public test::RobotTest
{
protected:
    void SetUp() override
    {
        test::RobotTest::SetUp();
        // The chatter would drown the test's own output.
        wz::log::setStderrEnabled(false);
    }
    void TearDown() override
    {
        chatter({0, "test.chatter", wz::LogLevel_Warning});
        recorder.reset();
        wz::log::setStderrEnabled(true);
        test::RobotTest::TearDown();
    }

    boost::shared_ptr<RK::LogListenerInterface> connect()
    {
        recorder = std::make_unique<test::Recorder>();
        EXPECT_TRUE(recorder->connectAndWait(robot()));
        auto logs = recorder->manager->logListenerInterface();
        if (logs) {
            QObject::connect(logs.get(), &RK::LogListenerInterface::onLogMessageReceived,
                             recorder->manager.get(), [this](const wz::LogMessage &m) {
                                 if (m.category.rfind("test.", 0) == 0)
                                     received.push_back(m);
                             });
        }
        return logs;
    }
    void chatter(const sim::LogManagerService::Chatter &c)
    {
        robot().serviceAs<sim::LogManagerService>("LogManager")->setChatter(c);
    }
    // Stops the chatter once `cap` messages have been written since `first`.
    // The robot's own queue (10,000) then never fills, however slowly a
    // sanitized robot on a busy machine sends, so every loss is the desktop's.
    void capChatter(uint64_t first, uint64_t cap)
    {
        auto *service = robot().serviceAs<sim::LogManagerService>("LogManager");
        if (service->sent() - first >= cap && service->chatter().rate > 0)
            chatter({0, "test.chatter", wz::LogLevel_Warning});
    }
    std::vector<std::string> texts(const std::string &category) const
    {
        std::vector<std::string> out;
        for (const wz::LogMessage &m : received) {
            if (m.category == category)
                out.push_back(m.message);
        }
        return out;
    }
    // Logs a marker and waits until it has come back: everything logged
    // before it has then been sent or filtered out.
    bool roundTrip(const std::string &text, wz::LogLevel level = wz::LogLevel_Warning)
    {
        wz::log::log(level, "test.marker", "roundTrip", text);
        return test::waitUntil([&] {
            const std::vector<std::string> markers = texts("test.marker");
            return std::find(markers.begin(), markers.end(), text) != markers.end();
        });
    }

    std::unique_ptr<test::Recorder> recorder;
    std::vector<wz::LogMessage> received;
};

TEST_F(LogListenerTest, MessagesArriveInOrderWithNoneLost)
{
    const auto logs = connect();
    ASSERT_TRUE(logs);
    EXPECT_EQ(logs->executerThread()->objectName(), QStringLiteral("LogListenerInterface thread"));
    const uint64_t first = robot().serviceAs<sim::LogManagerService>("LogManager")->sent();
    chatter({4000, "test.chatter", wz::LogLevel_Warning});
    ASSERT_TRUE(test::waitUntil([&] {
        capChatter(first, 4000);
        return texts("test.chatter").size() >= 2000;
    }));
    chatter({0, "test.chatter", wz::LogLevel_Warning});
    const std::vector<std::string> got = texts("test.chatter");
    for (size_t i = 0; i < got.size(); ++i)
        ASSERT_EQ(got[i], "chatter " + std::to_string(first + i)) << "message " << i;
    EXPECT_EQ(received.front().level, wz::LogLevel_Warning);
}

TEST_F(LogListenerTest, LevelAndCategoryFiltersChangeWhatArrives)
{
    const auto logs = connect();
    ASSERT_TRUE(logs);
    EXPECT_EQ(logs->logLevel().result(), wz::LogLevel_Info);

    logs->setCategory(QStringLiteral("test.quiet"), wz::LogLevel_Error).waitForFinished();
    wz::log::log(wz::LogLevel_Warning, "test.quiet", "test", "filtered out");
    wz::log::log(wz::LogLevel_Error, "test.quiet", "test", "let through");
    ASSERT_TRUE(roundTrip("after the category filter"));
    EXPECT_EQ(texts("test.quiet"), std::vector<std::string> {"let through"});

    // The level is a filter on every category, not the verbosity: the
    // robot's verbosity stays as it was.
    logs->setLogLevel(wz::LogLevel_Error).waitForFinished();
    EXPECT_EQ(logs->logLevel().result(), wz::LogLevel_Info);
    wz::log::log(wz::LogLevel_Warning, "test.marker", "test", "hidden by the level");
    ASSERT_TRUE(roundTrip("error marker", wz::LogLevel_Error));
    EXPECT_EQ(texts("test.marker"),
              (std::vector<std::string> {"after the category filter", "error marker"}));

    logs->clearFilters().waitForFinished();
    wz::log::log(wz::LogLevel_Warning, "test.quiet", "test", "heard again");
    ASSERT_TRUE(roundTrip("after clearing"));
    EXPECT_EQ(texts("test.quiet"), (std::vector<std::string> {"let through", "heard again"}));
}

TEST_F(LogListenerTest, ARobotWithoutLogManager)
{
    robot().scenario().omitService("LogManager");
    const auto logs = connect();
    ASSERT_TRUE(logs);
    EXPECT_EQ(logs->logLevel().result(), wz::LogLevel_Info);
    logs->setLogLevel(wz::LogLevel_Debug).waitForFinished();
    logs->clearFilters().waitForFinished();
}

// The application's thread stalls while the robot logs 5,000 messages a
// second: the queue to it stays within its limit, the oldest go, and what
// it is told adds up exactly to what the robot sent.
TEST_F(LogListenerTest, AStalledReaderKeepsABoundedQueueAndLearnsWhatWasDropped)
{
    const auto logs = connect();
    ASSERT_TRUE(logs);
    // Only the chatter comes: every message dropped or delivered is one of it.
    logs->setCategory(QStringLiteral("*"), wz::LogLevel_Silent).waitForFinished();
    logs->setCategory(QStringLiteral("test.chatter"), wz::LogLevel_Debug).waitForFinished();
    EXPECT_EQ(logs->queueLimit(), 10000);
    logs->setQueueLimit(500);
    EXPECT_EQ(logs->queueLimit(), 500);

    // Each message must be the next one sent, counting those said dropped.
    uint64_t expected = robot().serviceAs<sim::LogManagerService>("LogManager")->sent();
    const uint64_t first = expected;
    int outOfOrder = 0;
    uint64_t droppedTold = 0;
    QObject::connect(logs.get(), &RK::LogListenerInterface::logMessagesDropped,
                     recorder->manager.get(), [&](int count) {
                         expected += static_cast<uint64_t>(count);
                         droppedTold += static_cast<uint64_t>(count);
                     });
    QObject::connect(logs.get(), &RK::LogListenerInterface::onLogMessageReceived,
                     recorder->manager.get(), [&](const wz::LogMessage &m) {
                         if (m.category != "test.chatter")
                             return;
                         if (m.message != "chatter " + std::to_string(expected))
                             ++outOfOrder;
                         expected = std::stoull(m.message.substr(8)) + 1;
                     });

    RK::LogListenerExecuter *executer = logs->executer();
    chatter({5000, "test.chatter", wz::LogLevel_Warning});
    // The stall: no event of this thread runs until 2,000 have arrived.
    int mostPending = 0;
    QDeadlineTimer deadline(8000);
    while (executer->stats().received < 2000 && !deadline.hasExpired()) {
        mostPending = std::max(mostPending, executer->stats().pending);
        capChatter(first, 4000);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    chatter({0, "test.chatter", wz::LogLevel_Warning});
    const uint64_t end = robot().serviceAs<sim::LogManagerService>("LogManager")->sent();
    const RK::LogListenerExecuter::Stats stalled = executer->stats();
    ASSERT_GE(stalled.received, 2000u);
    EXPECT_LE(mostPending, 500);
    EXPECT_LE(stalled.pending, 500);
    EXPECT_GE(stalled.dropped, 1500u);

    ASSERT_TRUE(test::waitUntil([&] { return expected >= end; }));
    EXPECT_EQ(expected, end);
    EXPECT_EQ(outOfOrder, 0);
    EXPECT_EQ(droppedTold, executer->stats().dropped);
    EXPECT_EQ(texts("test.chatter").size() + droppedTold, end - first);
}

TEST_F(LogListenerTest, TeardownWhileMessagesFlow)
{
    // The chatter runs across each teardown, not across the connection
    // before it: a robot flooding its log while a slow (sanitized) desktop
    // binds its services tests nothing this case is about.
    for (int round = 0; round < 3; ++round) {
        received.clear();
        const auto logs = connect();
        ASSERT_TRUE(logs);
        chatter({20000, "test.chatter", wz::LogLevel_Warning});
        ASSERT_TRUE(test::waitUntil([&] { return texts("test.chatter").size() >= 100; }));
        ASSERT_TRUE(recorder->disconnectAndWait());
        recorder.reset();
        chatter({0, "test.chatter", wz::LogLevel_Warning});
    }
}

} // namespace
