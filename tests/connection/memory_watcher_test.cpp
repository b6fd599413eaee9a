// The memory watcher and catalogue against the simulated robot, through a
// connection made by the manager.

#include "memory_test_support.h"
#include "robot_fixture.h"

#include "connection_manager_p.h"
#include "connection_p.h"
#include "sartel_almodule_p.h"
#include <connection/memory_interface.h>

#include <QDateTime>
#include <QFuture>
#include <QMetaObject>
#include <QtGlobal>

#include <sim/memory_service.h>
#include <sim/memory_watcher_service.h>
#include <wz/log.h>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

using namespace std::chrono_literals;
using test::Batch;

namespace {

const char *const k_watcher = "VXMemoryWatcher";

double wallSeconds()
{
    return QDateTime::currentMSecsSinceEpoch() / 1000.0;
}

wz::AnyValue list(std::vector<wz::AnyValue> items)
{
    return wz::AnyValue(wz::AnyValue::List(std::move(items)));
}

// One well-formed history entry: [key, [[[seconds, microseconds], value]]].
wz::AnyValue entry(const std::string &key, int seconds, int microseconds, wz::AnyValue value)
{
    return list({wz::AnyValue(key), list({list({list({seconds, microseconds}), value})})});
}

class MemoryWatcherTest : public test::RobotTest
{
protected:
    void SetUp() override
    {
        test::RobotTest::SetUp();
        watcherService().clearQueuedResults();
    }
    void TearDown() override
    {
        collector.reset();
        memory.reset();
        connection.reset();
        recorder.reset();
        watcherService().clearQueuedResults();
        test::RobotTest::TearDown();
    }

    static sim::MemoryWatcherService &watcherService()
    {
        return *robot().serviceAs<sim::MemoryWatcherService>(k_watcher);
    }

    // Connects; without the robot's watcher the connection has no proxy for
    // it, and the service comes back at once so that any call to it would show.
    void connectRobot(bool withWatcher)
    {
        if (!withWatcher)
            robot().scenario().omitService(k_watcher);
        recorder = std::make_unique<test::Recorder>();
        ASSERT_TRUE(recorder->connectAndWait(robot()));
        if (!withWatcher)
            robot().scenario().restoreService(k_watcher);
        connection = RK::currentConnection(*recorder->manager);
        ASSERT_TRUE(connection);
        ASSERT_EQ(bool(connection->memoryWatcher()), withWatcher);
        memory = recorder->manager->memoryInterface();
        ASSERT_TRUE(memory);
        collector = std::make_unique<test::BatchCollector>(memory.get());
    }

    // Waits until every request posted so far has run on the executer's thread.
    void sync()
    {
        QMetaObject::invokeMethod(
            memory->executer(), [] {}, Qt::BlockingQueuedConnection);
    }

    // The robot's record of this connection's watcher.
    sim::MemoryWatcherService::ClientState robotState()
    {
        const std::vector<std::string> peers = robot().scenario().clients();
        EXPECT_EQ(peers.size(), 1u);
        return watcherService().clientState(peers.empty() ? std::string() : peers.front());
    }

    uint64_t watcherCalls(const char *method)
    {
        return robot().scenario().callCount(k_watcher, method);
    }

    bool waitFor(const std::function<bool()> &done,
                 std::chrono::milliseconds deadline = test::patience())
    {
        return test::waitUntil(done, deadline);
    }

    std::unique_ptr<test::Recorder> recorder;
    boost::shared_ptr<RK::Connection> connection;
    boost::shared_ptr<RK::MemoryInterface> memory;
    std::unique_ptr<test::BatchCollector> collector;
};

TEST_F(MemoryWatcherTest, RealTimeSourceDeliversWhatTheRobotSampled)
{
    connectRobot(true);
    robot().scenario().setKey("MemTest/A", 1);
    robot().scenario().setKey("MemTest/B", "x");
    const double before = wallSeconds();

    memory->watchKeys({QStringLiteral("MemTest/A"), QStringLiteral("MemTest/B")}, 100);
    memory->watchKey(QStringLiteral("MemTest/A"), 50); // watched twice: one listener
    memory->startWatcher(100, 20);
    ASSERT_TRUE(waitFor([&] { return collector->samplesOf("MemTest/A").size() >= 3; }));
    robot().scenario().setKey("MemTest/A", 2);
    ASSERT_TRUE(waitFor([&] { return collector->samplesOf("MemTest/A").last() == QVariant(2); }));

    const sim::MemoryWatcherService::ClientState state = robotState();
    EXPECT_EQ(state.listeners, (std::set<std::string> {"MemTest/A", "MemTest/B"}));
    EXPECT_EQ(state.periodMs, 20);
    EXPECT_TRUE(state.watching);
    EXPECT_EQ(robot().scenario().calls(k_watcher, "setPeriodMs").at(0).at(0), wz::AnyValue(20));
    // The robot samples: nothing is polled from the desktop.
    EXPECT_EQ(robot().scenario().callCount("VXMemory", "getListData"), 0u);

    const QMap<double, QVariant> a = collector->samplesOf("MemTest/A");
    const QMap<double, QVariant> b = collector->samplesOf("MemTest/B");
    EXPECT_EQ(a.first(), QVariant(1));
    EXPECT_EQ(b.first(), QVariant(QStringLiteral("x")));
    // Stamped with the robot's clock, which here is this machine's.
    EXPECT_GE(a.firstKey(), before - 1.0);
    EXPECT_LE(a.lastKey(), wallSeconds() + 1.0);

    memory->unwatchKey(QStringLiteral("MemTest/B"));
    sync();
    EXPECT_EQ(robotState().listeners, (std::set<std::string> {"MemTest/A"}));

    memory->stopWatcher();
    sync();
    EXPECT_FALSE(robotState().watching);
    const uint64_t gathers = watcherCalls("getData");
    ASSERT_TRUE(test::barrierAfter(memory->executer(), 300ms));
    EXPECT_EQ(watcherCalls("getData"), gathers);
}

TEST_F(MemoryWatcherTest, RealTimeEmptyBatchesAndTheDefaultSamplingPeriod)
{
    connectRobot(true);
    memory->startWatcher(40);
    ASSERT_TRUE(waitFor([&] { return collector->batches.size() >= 3; }));
    for (const Batch &batch : collector->batches)
        EXPECT_TRUE(batch.isEmpty());
    memory->setSamplingPeriod();
    memory->setSamplingPeriod(250);
    sync();
    std::vector<wz::AnyValue> periods;
    for (const sim::Args &args : robot().scenario().calls(k_watcher, "setPeriodMs"))
        periods.push_back(args.at(0));
    EXPECT_EQ(periods, (std::vector<wz::AnyValue> {0, 0, 250}));
    EXPECT_EQ(robotState().periodMs, 250);

    memory->unwatchAll();
    memory->watchKey(QStringLiteral("MemTest/C"), 10);
    memory->unwatchAll();
    sync();
    EXPECT_TRUE(robotState().listeners.empty());
}

TEST_F(MemoryWatcherTest, PollingFallbackSamplesOnTheDesktop)
{
    connectRobot(false);
    // Without a sampling period the sample timer runs at 0.
    memory->startWatcher(1000);
    sync();
    EXPECT_TRUE(memory->executer()->isSampling());
    EXPECT_EQ(memory->executer()->sampleInterval(), 0);
    EXPECT_EQ(memory->executer()->gatherInterval(), 1000);
    memory->setGatherPeriod(40);
    memory->setSamplingPeriod(10);
    sync();
    EXPECT_EQ(memory->executer()->gatherInterval(), 40);
    EXPECT_EQ(memory->executer()->sampleInterval(), 10);

    // Nothing watched: no remote call, yet every gather tick emits.
    ASSERT_TRUE(waitFor([&] { return collector->batches.size() >= 3; }));
    for (const Batch &batch : collector->batches)
        EXPECT_TRUE(batch.isEmpty());
    EXPECT_EQ(robot().scenario().callCount("VXMemory", "getListData"), 0u);

    robot().scenario().setKey("Poll/a", 7);
    robot().scenario().setKey("Poll/b", wz::AnyValue(2.5));
    const double before = wallSeconds();
    // Keys are added while stopped, so that every tick sees both of them.
    memory->stopWatcher();
    memory->watchKey(QStringLiteral("Poll/a"), 100);
    memory->watchKey(QStringLiteral("Poll/a"), 500); // one entry, the later period
    memory->watchKeys({QStringLiteral("Poll/b")}, 100);
    sync();
    EXPECT_EQ(
        memory->executer()->localWatchedKeys(),
        (QMap<QString, int> {{QStringLiteral("Poll/a"), 500}, {QStringLiteral("Poll/b"), 100}}));
    memory->startWatcher(40, 10);
    ASSERT_TRUE(waitFor([&] { return collector->samplesOf("Poll/a").size() >= 3; }));

    // One call for all keys at each tick, each key once.
    const std::vector<sim::Args> polls = robot().scenario().calls("VXMemory", "getListData");
    ASSERT_FALSE(polls.empty());
    EXPECT_EQ(polls.back().at(0), wz::AnyValue(wz::AnyValue::List {"Poll/a", "Poll/b"}));
    // One desktop stamp per tick, shared by every key of it.
    const QMap<double, QVariant> a = collector->samplesOf("Poll/a");
    const QMap<double, QVariant> b = collector->samplesOf("Poll/b");
    EXPECT_EQ(a.keys(), b.keys());
    EXPECT_EQ(a.first(), QVariant(7));
    EXPECT_FLOAT_EQ(b.first().toFloat(), 2.5f);
    EXPECT_GE(a.firstKey(), before - 1.0);
    EXPECT_LE(a.lastKey(), wallSeconds() + 1.0);
    // The robot's watcher, back on the robot, is never asked.
    EXPECT_EQ(watcherCalls("addListener") + watcherCalls("startWatching") + watcherCalls("getData"),
              0u);

    // A failing poll is logged.
    wz::log::LogCapture log;
    robot().scenario().failMethod("VXMemory", "getListData", "memory bus stuck");
    ASSERT_TRUE(waitFor([&] {
        return log.contains(wz::LogLevel_Warning, "desktop.memory",
                            "VXMemory::getListData has thrown: ");
    }));
    EXPECT_TRUE(log.contains("desktop.memory", "memory bus stuck"));

    memory->stopWatcher();
    sync();
    EXPECT_FALSE(memory->executer()->isGathering());
    EXPECT_FALSE(memory->executer()->isSampling());
}

// Each value breaks one rule of the history format; each is followed by a
// well-formed one carrying its index. Only the well-formed ones may come out,
// in order, and nothing may be logged.
TEST_F(MemoryWatcherTest, EveryMalformedHistoryDropsItsTickSilently)
{
    const wz::AnyValue good = entry("Good/x", 1700000000, 5, 1);
    const std::vector<wz::AnyValue> malformed {
        wz::AnyValue(), // "Invalid data retrieved."
        wz::AnyValue("not a list"), // "Data was not an array."
        list({list({wz::AnyValue("k")})}), // "Data entry not an array of size 2."
        list({wz::AnyValue(3)}), // the same, not even an array
        list({list({wz::AnyValue(1), list({})})}), // "... not a key name string."
        list({list({wz::AnyValue("k"), wz::AnyValue(4)})}), // "... not a history array."
        list({list({wz::AnyValue("k"), list({list({list({1, 2})})})})}), // "History entry not ..."
        list({list({wz::AnyValue("k"), list({list({list({1}), 5})})})}), // "... first element ..."
        list({list({wz::AnyValue("k"), list({list({7, 5})})})}), // stamp not an array
        list({list({wz::AnyValue("k"), list({list({list({"s", 2}), 5})})})}), // stamp not a number
        // A good entry first: the whole tick goes, not only the bad entry.
        list({good, list({wz::AnyValue("k"), wz::AnyValue(4)})}),
    };
    for (size_t i = 0; i < malformed.size(); ++i) {
        watcherService().queueResult(malformed[i]);
        watcherService().queueResult(
            list({entry("Good/" + std::to_string(i), 1700000000, static_cast<int>(i), 10)}));
    }
    connectRobot(true);
    wz::log::LogCapture log;
    memory->startWatcher(20);
    ASSERT_TRUE(waitFor([&] { return watcherService().queuedResults() == 0; }));
    ASSERT_TRUE(waitFor([&] { return collector->batches.size() >= malformed.size(); }));

    for (size_t i = 0; i < malformed.size(); ++i) {
        const QString key = QStringLiteral("Good/%1").arg(i);
        const Batch &batch = collector->batches.at(i);
        ASSERT_EQ(batch.keys(), QStringList {key}) << "tick " << i;
        EXPECT_EQ(batch.value(key).firstKey(), 1700000000.0 + i / 1e6);
    }
    EXPECT_TRUE(log.find("desktop.memory", "").empty());
}

TEST_F(MemoryWatcherTest, AFailingGetDataSkipsTicksUntilItAnswersAgain)
{
    connectRobot(true);
    robot().scenario().failMethod(k_watcher, "getData", "watcher rebooting");
    memory->startWatcher(20);
    ASSERT_TRUE(robot().scenario().waitForCalls(k_watcher, "getData", 3, test::patience()));
    ASSERT_TRUE(test::barrier(memory->executer()));
    EXPECT_TRUE(collector->batches.empty());
    robot().scenario().restoreMethod(k_watcher, "getData");
    EXPECT_TRUE(waitFor([&] { return !collector->batches.empty(); }));
}

TEST_F(MemoryWatcherTest, RemoteFailuresOfWatchingAreLoggedAsWarnings)
{
    connectRobot(true);
    struct Case
    {
        const char *method;
        std::function<void()> request;
        std::vector<std::string> records;
    };
    const std::vector<Case> cases {
        {"addListener",
         [&] { memory->watchKey(QStringLiteral("Fail/k"), 10); },
         {"Cannot watch Fail/k", "VXMemoryWatcher::addListener has thrown: "}},
        {"addListeners",
         [&] { memory->watchKeys({QStringLiteral("Fail/k")}, 10); },
         {"VXMemoryWatcher::addListeners has thrown: "}},
        {"removeListener",
         [&] { memory->unwatchKey(QStringLiteral("Fail/k")); },
         {"VXMemoryWatcher::removeListener has thrown: "}},
        {"removeAllListeners",
         [&] { memory->unwatchAll(); },
         {"VXMemoryWatcher::removeAllListeners has thown: "}},
        {"setPeriodMs",
         [&] { memory->setSamplingPeriod(50); },
         {"VXMemoryWatcher::setPeriodMs has thrown: "}},
        {"stopWatching",
         [&] { memory->stopWatcher(); },
         {"VXMemoryWatcher::stopWatching has thrown: "}},
    };
    for (const Case &c : cases) {
        wz::log::LogCapture log;
        robot().scenario().failMethod(k_watcher, c.method, "module is busy");
        c.request();
        sync();
        for (const std::string &text : c.records)
            EXPECT_TRUE(log.contains(wz::LogLevel_Warning, "desktop.memory", text)) << text;
        EXPECT_TRUE(log.contains("desktop.memory", "module is busy")) << c.method;
        robot().scenario().restoreMethod(k_watcher, c.method);
    }
}

TEST_F(MemoryWatcherTest, AWatcherThatFailedToStartLeavesNoGatherTicks)
{
    connectRobot(true);
    wz::log::LogCapture log;
    robot().scenario().failMethod(k_watcher, "startWatching", "no sampler left");
    memory->startWatcher(20, 20);
    sync();
    EXPECT_TRUE(log.contains(wz::LogLevel_Warning, "desktop.memory", "Failure: "));
    EXPECT_TRUE(log.contains("desktop.memory", "no sampler left"));
    EXPECT_FALSE(memory->executer()->isGathering());
    ASSERT_TRUE(test::barrierAfter(memory->executer(), 100ms));
    EXPECT_EQ(watcherCalls("getData"), 0u);
    EXPECT_TRUE(collector->batches.empty());
}

TEST_F(MemoryWatcherTest, IsRealTimeSupportedAnswersTrueFalseOrNothing)
{
    test::AnswerReceiver receiver;
    {
        connectRobot(true);
        memory->isRealTimeSupported(&receiver, "onRealTimeSupported");
        const QFuture<bool> answer = memory->isRealTimeSupported();
        ASSERT_TRUE(waitFor([&] { return receiver.answers.size() == 1 && answer.isFinished(); }));
        EXPECT_TRUE(receiver.answers.back());
        ASSERT_EQ(answer.resultCount(), 1);
        EXPECT_TRUE(answer.result());
        collector.reset();
        memory.reset();
        connection.reset();
        ASSERT_TRUE(recorder->disconnectAndWait());
        recorder.reset();
    }
    connectRobot(false);
    memory->isRealTimeSupported(&receiver, "onRealTimeSupported");
    const QFuture<bool> polling = memory->isRealTimeSupported();
    ASSERT_TRUE(waitFor([&] { return receiver.answers.size() == 2 && polling.isFinished(); }));
    EXPECT_FALSE(receiver.answers.back());
    ASSERT_EQ(polling.resultCount(), 1);
    EXPECT_FALSE(polling.result());

    // A slot that does not exist is a warning; a target gone first, nothing.
    {
        wz::log::LogCapture log;
        memory->isRealTimeSupported(&receiver, "noSuchSlot");
        auto doomed = std::make_unique<test::AnswerReceiver>();
        memory->isRealTimeSupported(doomed.get(), "onRealTimeSupported");
        doomed.reset();
        const QFuture<bool> later = memory->isRealTimeSupported();
        ASSERT_TRUE(waitFor([&] { return later.isFinished(); }));
        EXPECT_TRUE(waitFor([&] {
            return log.contains(wz::LogLevel_Warning, "desktop.memory",
                                "cannot answer isRealTimeSupported: test::AnswerReceiver has no "
                                "slot noSuchSlot(bool)");
        }));
        EXPECT_EQ(receiver.answers.size(), 2u);
    }

    // The application kept the interface past disconnection: no answer, and
    // the future is canceled. The slot's answer would have been on its way
    // before the future ended, the two being asked in that order.
    connection.reset();
    ASSERT_TRUE(recorder->disconnectAndWait());
    memory->isRealTimeSupported(&receiver, "onRealTimeSupported");
    const QFuture<bool> gone = memory->isRealTimeSupported();
    ASSERT_TRUE(waitFor([&] { return gone.isFinished(); }));
    QCoreApplication::processEvents();
    EXPECT_TRUE(gone.isCanceled());
    EXPECT_EQ(gone.resultCount(), 0);
    EXPECT_EQ(receiver.answers.size(), 2u);
}

TEST_F(MemoryWatcherTest, TeardownTellsTheRobotToStopWatching)
{
    connectRobot(true);
    memory->watchKey(QStringLiteral("Tear/k"), 10);
    memory->startWatcher(20, 20);
    ASSERT_TRUE(waitFor([&] { return !collector->batches.empty(); }));
    ASSERT_TRUE(robotState().watching);
    const uint64_t stops = watcherCalls("stopWatching");

    static std::mutex s_mutex;
    static QStringList s_warnings;
    s_warnings.clear();
    // Qt reports from whichever thread misbehaves.
    const QtMessageHandler previous
        = qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &text) {
              std::lock_guard<std::mutex> lock(s_mutex);
              s_warnings << text;
          });
    collector.reset();
    memory.reset();
    connection.reset();
    ASSERT_TRUE(recorder->disconnectAndWait());
    qInstallMessageHandler(previous);

    EXPECT_EQ(watcherCalls("stopWatching"), stops + 1);
    // Timers are stopped on their own thread, never from the destroying one.
    EXPECT_TRUE(s_warnings.filter(QStringLiteral("Timers")).isEmpty())
        << s_warnings.join('\n').toStdString();
}

TEST_F(MemoryWatcherTest, CatalogueAnswersAndItsEmptyResults)
{
    connectRobot(true);
    robot().scenario().setKey("Cat/Int", 3);
    robot().scenario().raiseEvent("Cat/Event", 1);
    robot().scenario().raiseMicroEvent("Cat/Micro", 2);

    EXPECT_EQ(memory->getKeyType(QStringLiteral("Cat/Int")).result(), QStringLiteral("Int"));
    EXPECT_TRUE(memory->getDataList().result().contains(QStringLiteral("Cat/Int")));
    EXPECT_TRUE(memory->getEventList().result().contains(QStringLiteral("Cat/Event")));
    EXPECT_FALSE(memory->getEventList().result().contains(QStringLiteral("Cat/Micro")));
    EXPECT_TRUE(memory->getMicroEventList().result().contains(QStringLiteral("Cat/Micro")));
    EXPECT_EQ(robot().scenario().calls("VXMemory", "getDataList").back().at(0), wz::AnyValue(""));

    {
        // A key without a type is common: logged at verbose level only.
        wz::log::LogCapture log;
        const QString type = memory->getKeyType(QStringLiteral("Cat/none")).result();
        EXPECT_TRUE(type.isNull());
        const std::vector<wz::LogMessage> records
            = log.find("desktop.memory", "VXMemory::getType has thrown: ");
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(records.front().level, wz::LogLevel_Verbose);
        EXPECT_NE(records.front().message.find("Cat/none"), std::string::npos);
    }
    struct ListCase
    {
        const char *method;
        std::function<QFuture<QStringList>()> request;
    };
    const std::vector<ListCase> lists {
        {"getDataList", [&] { return memory->getDataList(); }},
        {"getEventList", [&] { return memory->getEventList(); }},
        {"getMicroEventList", [&] { return memory->getMicroEventList(); }},
    };
    for (const ListCase &c : lists) {
        wz::log::LogCapture log;
        robot().scenario().failMethod("VXMemory", c.method, "catalogue locked");
        EXPECT_TRUE(c.request().result().isEmpty()) << c.method;
        EXPECT_TRUE(log.contains(wz::LogLevel_Warning, "desktop.memory",
                                 std::string("VXMemory::") + c.method + " has thrown: "))
            << c.method;
        robot().scenario().restoreMethod("VXMemory", c.method);
    }
    EXPECT_TRUE(waitFor([&] { return memory->pendingFutures() == 0; }));

    // Gone connection: finished futures, empty results, not a word.
    connection.reset();
    ASSERT_TRUE(recorder->disconnectAndWait());
    wz::log::LogCapture log;
    QFuture<QStringList> list = memory->getDataList();
    list.waitForFinished();
    EXPECT_TRUE(list.isFinished());
    EXPECT_TRUE(list.result().isEmpty());
    EXPECT_TRUE(memory->getKeyType(QStringLiteral("Cat/Int")).result().isNull());
    EXPECT_TRUE(log.find("desktop.memory", "").empty());
}

TEST_F(MemoryWatcherTest, MicroEventsReachTheDesktopModule)
{
    connectRobot(true);
    const boost::shared_ptr<RK::VXSartel> module = connection->sartelModule();
    ASSERT_TRUE(module);
    QStringList delivered;
    QObject context;
    QObject::connect(module.get(), &RK::VXSartel::dataSubscribedChanged, &context,
                     [&delivered](const QString &name, const VX::VXValue &value) {
                         // Other subscriptions of the connection (behaviour
                         // events, some with text values) may arrive meanwhile.
                         if (name == QLatin1String("Mem/Micro"))
                             delivered << name + QLatin1Char('=') + QString::number(value.toInt());
                     });

    memory->executer()->subscribeToMicroEvent(QStringLiteral("Mem/Micro"));
    EXPECT_EQ(robot().memory().subscribers("Mem/Micro"),
              std::vector<std::string> {module->objectName().toStdString()});
    robot().scenario().raiseMicroEvent("Mem/Micro", 5);
    EXPECT_TRUE(waitFor([&] { return delivered.contains(QStringLiteral("Mem/Micro=5")); }));
    memory->executer()->unsubscribeToMicroEvent(QStringLiteral("Mem/Micro"));
    EXPECT_TRUE(robot().memory().subscribers("Mem/Micro").empty());

    // Failures are errors in the log, and nothing more.
    wz::log::LogCapture log;
    memory->executer()->unsubscribeToMicroEvent(QStringLiteral("Mem/Micro"));
    EXPECT_TRUE(log.contains(wz::LogLevel_Error, "desktop.memory",
                             "unsubscribing from micro event \"Mem/Micro\" failed: "));
    robot().scenario().failMethod("VXMemory", "subscribeToMicroEvent", "no room");
    memory->executer()->subscribeToMicroEvent(QStringLiteral("Mem/Micro"));
    EXPECT_TRUE(log.contains(wz::LogLevel_Error, "desktop.memory",
                             "subscribing to micro event \"Mem/Micro\" failed: "));
}

} // namespace
