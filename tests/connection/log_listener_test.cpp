// The robot's log through LogListenerInterface: order and completeness
// under load, the robot-side filters, and teardown while messages flow.
#include "robot_fixture.h"

#include <connection/connection.h>
#include <connection/log_listener_interface.h>

#include "executer_thread_p.h"

#include <sim/device_services.h>

#include <wz/log.h>

#include <memory>
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
        return test::processUntil([&] {
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
    ASSERT_TRUE(test::processUntil([&] { return texts("test.chatter").size() >= 2000; }));
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
        ASSERT_TRUE(test::processUntil([&] { return texts("test.chatter").size() >= 100; }));
        ASSERT_TRUE(recorder->disconnectAndWait());
        recorder.reset();
        chatter({0, "test.chatter", wz::LogLevel_Warning});
    }
}

} // namespace
