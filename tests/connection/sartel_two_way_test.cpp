// The two-way test when the robot cannot reach the desktop, or reaches it
// late, with the test's time limit shortened from 15 s. Each test reports
// once: true or false, never both, never neither.

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

// The robot's removals of the test's event, as the desktop module receives
// them: behind any call the robot made to the module before.
class RemovalsOfTheTestEvent : public QObject
{
public:
    explicit RemovalsOfTheTestEvent(RK::SartelModuleInterface &module)
    {
        connect(&module, &RK::SartelModuleInterface::dataSubscribedChanged, this,
                [this](const QString &name, const VX::VXValue &value) {
                    if (name == QLatin1String(sim::MemoryService::kKeyRemoved) && value.isString()
                        && value.toStdString() == "SartelConnectionTest")
                        ++count;
                });
    }
    int count = 0;
};

using VXSartelHandle = boost::shared_ptr<RK::VXSartel>;

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

TEST_F(TwoWayTest, EachTestReportsOnceWhateverTheCallbackDoes)
{
    setLimit(500);
    robot().scenario().holdCallbacks("VXSartel");
    connect();
    TestOutcomes outcomes(*module);
    RemovalsOfTheTestEvent removals(*module);
    ASSERT_TRUE(recorder->waitFor(QStringLiteral("connectionTested(false)")));
    // The report may have come before this case listened to it.
    ASSERT_TRUE(test::barrier(module.get()));
    outcomes.results.clear();
    outcomes.dialogs.clear();

    // The robot's call comes after the time-out; the removal of the event by
    // the time-out comes behind it, on the same path.
    robot().scenario().holdCallbacks("VXSartel", false);
    ASSERT_TRUE(test::waitUntil([&] { return removals.count == 1; }));
    ASSERT_TRUE(test::barrier(module.get()));
    ASSERT_TRUE(test::barrier(connection.get()));
    EXPECT_TRUE(connection->sartelModule()->answered());
    EXPECT_TRUE(outcomes.results.empty());
    EXPECT_EQ(recorder->count(QStringLiteral("connectionTested(true)")), 0);

    // A module answered once still reports a test that is not answered.
    robot().scenario().holdCallbacks("VXSartel");
    module->testConnection();
    ASSERT_TRUE(test::waitUntil([&] { return !outcomes.results.empty(); }));
    EXPECT_EQ(outcomes.results, std::vector<bool> {false});
    EXPECT_EQ(outcomes.dialogs.size(), 1u);
    robot().scenario().holdCallbacks("VXSartel", false);
    ASSERT_TRUE(test::waitUntil([&] { return removals.count == 2; }));
    ASSERT_TRUE(test::barrier(module.get()));
    EXPECT_EQ(outcomes.results, std::vector<bool> {false});

    // And a test answered in time succeeds, once, however slow this machine.
    VXSartelHandle sartel = connection->sartelModule();
    QMetaObject::invokeMethod(
        sartel.get(), [sartel] { sartel->setTestLimit(int(test::patience().count())); },
        Qt::QueuedConnection);
    module->testConnection();
    ASSERT_TRUE(test::waitUntil([&] { return outcomes.results.size() == 2; }));
    EXPECT_EQ(outcomes.results, (std::vector<bool> {false, true}));
    // The callback removes the event; its removal passes the same way.
    ASSERT_TRUE(test::waitUntil([&] { return removals.count == 3; }));
    ASSERT_TRUE(test::barrier(module.get()));
    EXPECT_EQ(outcomes.results, (std::vector<bool> {false, true}));
    EXPECT_EQ(outcomes.dialogs.size(), 1u);
}

TEST_F(TwoWayTest, AnAnsweredModuleStillReportsAFailure)
{
    connect();
    TestOutcomes outcomes(*module);
    ASSERT_TRUE(recorder->waitFor(QStringLiteral("connectionTested(true)")));
    ASSERT_TRUE(test::barrier(module.get()));
    outcomes.results.clear();
    ASSERT_TRUE(connection->sartelModule()->answered());

    // The robot can no longer call back.
    robot().scenario().blockCallbacks("VXSartel");
    VXSartelHandle sartel = connection->sartelModule();
    QMetaObject::invokeMethod(
        sartel.get(), [sartel] { sartel->setTestLimit(300); }, Qt::QueuedConnection);
    module->testConnection();
    ASSERT_TRUE(test::waitUntil([&] { return !outcomes.results.empty(); }));
    EXPECT_EQ(outcomes.results, std::vector<bool> {false});
    ASSERT_EQ(outcomes.dialogs.size(), 1u);
    EXPECT_EQ(outcomes.dialogs[0].at(2), k_details);
    ASSERT_TRUE(recorder->waitFor(QStringLiteral("connectionTested(false)")));
}

TEST_F(TwoWayTest, TestsStartedTogetherReportOnceEach)
{
    setLimit(300);
    robot().scenario().blockCallbacks("VXSartel");
    connect();
    TestOutcomes outcomes(*module);
    ASSERT_TRUE(recorder->waitFor(QStringLiteral("connectionTested(false)")));
    ASSERT_TRUE(test::barrier(module.get()));
    outcomes.results.clear();

    // Neither is answered: two failures, from one time-out.
    module->testConnection();
    module->testConnection();
    ASSERT_TRUE(test::waitUntil([&] { return outcomes.results.size() >= 2; }));
    ASSERT_TRUE(test::barrier(module.get()));
    EXPECT_EQ(outcomes.results, (std::vector<bool> {false, false}));

    // Both answered, the first answer while both wait: two successes.
    robot().scenario().blockCallbacks("VXSartel", false);
    robot().scenario().holdCallbacks("VXSartel");
    VXSartelHandle sartel = connection->sartelModule();
    QMetaObject::invokeMethod(
        sartel.get(), [sartel] { sartel->setTestLimit(int(test::patience().count())); },
        Qt::QueuedConnection);
    module->testConnection();
    module->testConnection();
    ASSERT_TRUE(test::barrier(sartel.get()));
    robot().scenario().holdCallbacks("VXSartel", false);
    ASSERT_TRUE(test::waitUntil([&] { return outcomes.results.size() >= 4; }));
    ASSERT_TRUE(test::barrier(module.get()));
    EXPECT_EQ(outcomes.results, (std::vector<bool> {false, false, true, true}));
}

} // namespace
