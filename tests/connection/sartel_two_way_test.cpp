// The two-way test when the robot cannot reach the desktop, or reaches it
// late, with the test's time limit shortened from 15 s.

#include "sartel_fixture.h"

#include <connection/doc_link.h>

#include <QTimer>

#include <chrono>

using namespace std::chrono_literals;

namespace {

class TestOutcomes : public QObject
{
public:
    explicit TestOutcomes(RK::SartelModuleInterface &module)
    {
        connect(&module, &RK::SartelModuleInterface::connectionTested, this,
                [this](bool ok) { results.push_back(ok); });
        connect(&module, &RK::SartelModuleInterface::displayErrorRequested, this,
                [this](const QString &t, const QString &c, const QString &d, bool) {
                    dialogs.push_back({t, c, d});
                });
    }
    std::vector<bool> results;
    std::vector<QStringList> dialogs;
};

class TwoWayTest : public test::SartelTest
{
protected:
    void setLimit(int ms) { timing.connectionTestLimitMs = ms; }
};

const QString k_details = QStringLiteral(
    "The Morvane software running on the robot is not able to connect to Sartel through the "
    "network. Your firewall rules may be preventing that incoming connection, or you may have "
    "bad network conditions.");

TEST_F(TwoWayTest, ARobotThatCannotCallBackFailsTheTestWithTheDialog)
{
    setLimit(500);
    robot().scenario().blockCallbacks("VXSartel");
    wz::log::LogCapture logs;
    connect();
    TestOutcomes outcomes(*module);
    ASSERT_TRUE(test::waitUntil([&] { return !outcomes.results.empty(); }));
    EXPECT_EQ(outcomes.results, std::vector<bool> {false});
    ASSERT_TRUE(recorder->waitFor(QStringLiteral("connectionTested(false)")));
    EXPECT_EQ(recorder->count(QStringLiteral("connectionTested(true)")), 0);

    ASSERT_EQ(outcomes.dialogs.size(), 1u);
    EXPECT_EQ(outcomes.dialogs[0].at(0), QStringLiteral("Connection error"));
    EXPECT_EQ(outcomes.dialogs[0].at(1),
              QStringLiteral("The robot cannot connect to Sartel.<br>For more details, see <a "
                             "href=\"%1\">connection</a> troubleshooting.")
                  .arg(RK::DocLink::connectionDoc()));
    EXPECT_EQ(outcomes.dialogs[0].at(2), k_details);
    // The manager does not pass dialogs on; the connection's signal ends there.
    EXPECT_TRUE(recorder->errors.empty());
    // The time-out cleans up on the robot, and nothing of it is logged.
    EXPECT_EQ(calls("VXMemory", "removeMicroEvent"),
              (std::vector<sim::Args> {{wz::AnyValue("SartelConnectionTest")}}));
    EXPECT_FALSE(logs.contains("con.connection", "Two-way connectivity test failed"));
    EXPECT_FALSE(connection->sartelModule()->answered());
}

TEST_F(TwoWayTest, ACallbackAfterTheTimeOutFailsThenSucceeds)
{
    setLimit(500);
    sim::delayMicroEvent(robot(), "SartelConnectionTest", 1200ms);
    wz::log::LogCapture logs;
    connect();
    TestOutcomes outcomes(*module);
    ASSERT_TRUE(test::waitUntil([&] { return outcomes.results.size() == 2; }));
    EXPECT_EQ(outcomes.results, (std::vector<bool> {false, true}));
    // The user has seen the dialog by then.
    EXPECT_EQ(outcomes.dialogs.size(), 1u);
    EXPECT_TRUE(recorder->waitFor(QStringLiteral("connectionTested(true)")));
    EXPECT_LT(recorder->events.indexOf(QStringLiteral("connectionTested(false)")),
              recorder->events.indexOf(QStringLiteral("connectionTested(true)")));
    // The time-out removed the event already: the late callback cannot, and
    // succeeds all the same.
    EXPECT_TRUE(logs.contains(wz::LogLevel_Error, "con.connection",
                              "Error removing connection test VXMemory entry: "));
}

TEST_F(TwoWayTest, AnAnsweredModuleNeverReportsAFailureAgain)
{
    // Long enough for the first test to be answered on a loaded machine.
    const int limit = 1000;
    setLimit(limit);
    connect();
    TestOutcomes outcomes(*module);
    ASSERT_TRUE(recorder->waitFor(QStringLiteral("connectionTested(true)")));
    // The module's own report of that first test may have come before this
    // case listened to it: let it through, whichever way, before the real checks.
    ASSERT_TRUE(test::barrier(connection->sartelModule().get()));
    outcomes.results.clear();

    // The robot can no longer call back; a second test and a third, the
    // latter replacing the former's timer, end without a word.
    robot().scenario().blockCallbacks("VXSartel");
    // Other subscriptions of the module may still be arriving: count only the
    // ones of the connection test.
    auto testSubscriptions = [] {
        size_t n = 0;
        for (const sim::Args &args : calls("VXMemory", "subscribeToMicroEvent")) {
            if (!args.empty() && args[0] == wz::AnyValue("SartelConnectionTest"))
                ++n;
        }
        return n;
    };
    const size_t subscriptions = testSubscriptions();
    module->testConnection();
    ASSERT_TRUE(
        robot().scenario().waitForCalls("VXMemory", "raiseMicroEvent", 2, test::patience()));
    // The second test's timer has run a while when the third replaces it.
    ASSERT_TRUE(
        test::barrierAfter(connection->sartelModule().get(), std::chrono::milliseconds(limit / 3)));
    module->testConnection();
    ASSERT_TRUE(
        robot().scenario().waitForCalls("VXMemory", "raiseMicroEvent", 3, test::patience()));
    EXPECT_EQ(testSubscriptions(), subscriptions + 2);
    // Past the third test's time-out (a coarse timer may be 5% late).
    ASSERT_TRUE(test::barrierAfter(connection->sartelModule().get(),
                                   std::chrono::milliseconds(limit + limit / 2)));
    EXPECT_TRUE(outcomes.results.empty());
    EXPECT_TRUE(outcomes.dialogs.empty());
    EXPECT_EQ(recorder->count(QStringLiteral("connectionTested(false)")), 0);
}

} // namespace
