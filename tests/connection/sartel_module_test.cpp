#include "sartel_fixture.h"

#include <connection/doc_link.h>

#include <QSignalSpy>

#include <atomic>
#include <chrono>
#include <thread>

using namespace std::chrono_literals;

namespace {

using test::SartelTest;

struct Dialog
{
    QString title;
    QString contents;
    QString details;
};

// What one interface tells the application, collected on this thread.
class Listener : public QObject
{
public:
    explicit Listener(RK::SartelModuleInterface &module)
    {
        connect(&module, &RK::SartelModuleInterface::displayErrorRequested, this,
                [this](const QString &t, const QString &c, const QString &d, bool check) {
                    EXPECT_FALSE(check);
                    dialogs.push_back({t, c, d});
                });
        connect(&module, &RK::SartelModuleInterface::dataSubscribedChanged, this,
                [this](const QString &name, const VX::VXValue &value) {
                    events.push_back({name, value});
                });
        connect(&module, &RK::SartelModuleInterface::sentenceSaid, this,
                [this](const QString &s) { said << s; });
        connect(&module, &RK::SartelModuleInterface::sentenceHeard, this,
                [this](const QString &s) { heard << s; });
        connect(&module, &RK::SartelModuleInterface::disconnectRequested, this,
                [this] { ++disconnectRequests; });
    }

    int eventCount(const QString &name) const
    {
        int n = 0;
        for (const auto &e : events)
            n += e.first == name;
        return n;
    }

    std::vector<VX::VXValue> valuesOf(const QString &name) const
    {
        std::vector<VX::VXValue> out;
        for (const auto &e : events) {
            if (e.first == name)
                out.push_back(e.second);
        }
        return out;
    }

    std::vector<Dialog> dialogs;
    std::vector<std::pair<QString, VX::VXValue>> events;
    QStringList said;
    QStringList heard;
    int disconnectRequests = 0;
};

const QString k_box = QString::fromLatin1(test::BoxService::kName);
const QString k_input = QStringLiteral("onInput_go");
const QString k_disabled = QStringLiteral(
    "Box is disabled and therefore cannot be called. Check that the behavior keyframe parent is "
    "loaded.");

class SartelModuleTest : public SartelTest
{
protected:
    void SetUp() override
    {
        SartelTest::SetUp();
        connect();
        listener = std::make_unique<Listener>(*module);
    }
    void TearDown() override
    {
        listener.reset();
        SartelTest::TearDown();
    }

    // Subscribes and waits until the robot knows of it.
    void subscribe(const char *name)
    {
        emit module->subscribeToMicroEventRequested(QString::fromLatin1(name));
        drain();
        const auto subscribers = robot().memory().subscribers(name);
        ASSERT_NE(std::find(subscribers.begin(), subscribers.end(), "VXSartel"), subscribers.end());
    }

    std::unique_ptr<Listener> listener;
};

TEST_F(SartelModuleTest, TwoWayTestPassesAndTheModuleIsRegistered)
{
    ASSERT_TRUE(recorder->waitFor(QStringLiteral("connectionTested(true)")));
    EXPECT_EQ(recorder->count(QStringLiteral("connectionTested(false)")), 0);
    EXPECT_TRUE(recorder->errors.empty());
    ASSERT_TRUE(connection->sartelModule());
    EXPECT_EQ(connection->sartelModule(), module->sartelModule());
    EXPECT_EQ(connection->sartelModule()->objectName(), QStringLiteral("VXSartel"));
    EXPECT_TRUE(connection->sartelModule()->answered());
    EXPECT_EQ(module->executerThread()->objectName(),
              QStringLiteral("SartelModuleInterface thread"));

    // The robot knows the desktop by name, and follows what the module asked.
    EXPECT_TRUE(listed("VXSartel"));
    const auto removed = robot().memory().subscribers(sim::MemoryService::kKeyRemoved);
    EXPECT_NE(std::find(removed.begin(), removed.end(), "VXSartel"), removed.end());
    const auto sentences = robot().memory().subscribers("VXTextToSpeech/CurrentSentence");
    EXPECT_NE(std::find(sentences.begin(), sentences.end(), "VXSartel"), sentences.end());
    // The test cleaned up after itself on the robot.
    EXPECT_TRUE(test::waitUntil(
        [] { return robot().memory().subscribers("SartelConnectionTest").empty(); }));

    // The module goes with the connection, and the name with it.
    recorder->disconnectAndWait();
    module.reset();
    connection.reset();
    EXPECT_TRUE(test::waitUntil([] { return !listed("VXSartel"); }));
}

TEST_F(SartelModuleTest, ClientDisconnectedForThisClientAndForAnother)
{
    subscribe("ClientDisconnected");
    wz::log::LogCapture logs;

    sim::raiseClientDisconnected(robot(), wz::AnyValue("Workbench"));
    sim::raiseClientDisconnected(robot(), wz::AnyValue(7));
    sim::raiseClientDisconnected(robot(), wz::AnyValue("Sartel"));
    ASSERT_TRUE(test::waitUntil([&] { return listener->eventCount("ClientDisconnected") == 3; }));
    drain();
    EXPECT_EQ(listener->disconnectRequests, 1);
    // Every one of them is an ordinary event as well, in order.
    EXPECT_EQ(listener->valuesOf("ClientDisconnected"),
              (std::vector<VX::VXValue> {VX::VXValue("Workbench"), VX::VXValue(7),
                                         VX::VXValue("Sartel")}));
    EXPECT_EQ(
        logs.find("con.connection", "DisconnectRequested by Morvane. Connection is lost.").size(),
        1u);
}

TEST_F(SartelModuleTest, MicroEventsReachTheDispatcherByBothRoutes)
{
    // The interface asks for spoken sentences by a queued request, which may
    // still be on its way when the connection is established.
    drain();
    sim::raiseSentenceSaid(robot(), "Bonjour, ça va ?");
    ASSERT_TRUE(test::waitUntil([&] { return listener->said.size() == 2; }));
    drain();
    EXPECT_EQ(listener->said, QStringList(2, QStringLiteral("Bonjour, ça va ?")));
    // Seen once as an ordinary event.
    EXPECT_EQ(listener->eventCount("VXTextToSpeech/CurrentSentence"), 1);

    // Not a text: nothing said.
    sim::raiseSentenceSaid(robot(), "");
    robot().scenario().raiseMicroEvent("VXTextToSpeech/CurrentSentence", wz::AnyValue(3));
    sim::raiseSentenceSaid(robot(), "fin");
    ASSERT_TRUE(test::waitUntil([&] { return listener->said.count("fin") == 2; }));
    EXPECT_EQ(listener->said.size(), 6);
    EXPECT_EQ(listener->said.count(QString()), 2);
}

TEST_F(SartelModuleTest, ABurstArrivesWholeAndInOrderByBothRoutes)
{
    subscribe("Test/Burst");
    drain();
    // Events come to the application and to the executer in batches; a burst
    // must lose nothing and keep its order on each route.
    const int count = 3000;
    for (int i = 0; i < count; ++i) {
        robot().memory().raiseMicroEvent("Test/Burst", wz::AnyValue(i));
        if (i % 100 == 0)
            sim::raiseSentenceSaid(robot(), "s" + std::to_string(i / 100));
    }
    ASSERT_TRUE(test::waitUntil([&] {
        return listener->eventCount("Test/Burst") == count && listener->said.size() == 60;
    }));
    const std::vector<VX::VXValue> values = listener->valuesOf("Test/Burst");
    for (int i = 0; i < count; ++i)
        ASSERT_EQ(values[i], VX::VXValue(i)) << "at " << i;
    // Each sentence is said twice (once per route), the routes each in order.
    for (int i = 0; i < 30; ++i) {
        const QString s = QStringLiteral("s%1").arg(i);
        EXPECT_EQ(listener->said.count(s), 2) << s.toStdString();
        if (i > 0) {
            const QString before = QStringLiteral("s%1").arg(i - 1);
            EXPECT_LT(listener->said.indexOf(before), listener->said.indexOf(s));
            EXPECT_LT(listener->said.lastIndexOf(before), listener->said.lastIndexOf(s));
        }
    }
}

TEST_F(SartelModuleTest, TheConnectionCanEndWhileEventsStream)
{
    subscribe("Test/Stream");
    drain();
    std::atomic<bool> stop {false};
    // A steady stream, at most some 5000 events a second: a flood beyond what
    // the desktop takes in (an instrumented build's is a few thousand a second)
    // only queues on the link, and the first event would come seconds late.
    std::thread raiser([&stop] {
        for (int i = 0; !stop; ++i) {
            robot().memory().raiseMicroEvent("Test/Stream", wz::AnyValue(i));
            if (i % 5 == 4)
                std::this_thread::sleep_for(1ms);
        }
    });
    const bool flowing = test::waitUntil([&] { return listener->eventCount("Test/Stream") > 200; });
    // The interface, its executer and their queued batches go while the
    // module may still be receiving.
    EXPECT_TRUE(recorder->disconnectAndWait());
    listener.reset();
    module.reset();
    connection.reset();
    stop = true;
    raiser.join();
    EXPECT_TRUE(flowing);
    QCoreApplication::processEvents();
}

TEST_F(SartelModuleTest, WordRecognizedNeedsAConfidenceAboveThreshold)
{
    subscribe("WordRecognized");
    wz::log::LogCapture logs;
    sim::raiseWordRecognized(robot(), "low", 0.2f);
    // A float 0.3 is a little more than the double 0.3.
    sim::raiseWordRecognized(robot(), "edge", 0.3f);
    sim::raiseWordRecognized(robot(), "zero", 0.0f);
    // Shapes a robot should not send, each ignored.
    robot().scenario().raiseMicroEvent("WordRecognized", wz::AnyValue("loose text"));
    robot().scenario().raiseMicroEvent("WordRecognized",
                                       wz::AnyValue(wz::AnyValue::List {wz::AnyValue("alone")}));
    robot().scenario().raiseMicroEvent(
        "WordRecognized",
        wz::AnyValue(wz::AnyValue::List {wz::AnyValue(0.9), wz::AnyValue("reversed")}));
    sim::raiseWordRecognized(robot(), "high", 0.5f);
    ASSERT_TRUE(test::waitUntil([&] { return listener->heard.count("high") == 2; }));
    drain();
    // The two routes may interleave two events.
    EXPECT_EQ(listener->heard.size(), 4) << listener->heard.join(",").toStdString();
    EXPECT_EQ(listener->heard.count("edge"), 2);
    // Two routes, two warnings for each of the two arrays of the wrong shape.
    EXPECT_EQ(logs.find("con.srtE", "expected [word, confidence]").size(), 4u);
}

TEST_F(SartelModuleTest, SubscriptionsAndRaisedEvents)
{
    emit module->subscribeToMicroEventsRequested({"Test/A", "Test/B"});
    drain();
    EXPECT_EQ(robot().memory().subscribers("Test/A"), std::vector<std::string> {"VXSartel"});
    EXPECT_EQ(robot().memory().subscribers("Test/B"), std::vector<std::string> {"VXSartel"});

    // An event raised from the desktop comes back through the module.
    module->raiseEvent(QStringLiteral("Test/A"), VX::VXValue(std::vector<float> {1.5f, 2.0f}));
    ASSERT_TRUE(test::waitUntil([&] { return listener->eventCount("Test/A") == 1; }));
    const VX::VXValue raised = listener->valuesOf("Test/A").front();
    EXPECT_EQ(raised, VX::VXValue(std::vector<float> {1.5f, 2.0f})) << raised.toString(2);
    EXPECT_EQ(calls("VXMemory", "raiseEvent").back().at(0), wz::AnyValue("Test/A"));

    // One unsubscription ends the name, however often it was subscribed.
    emit module->subscribeToMicroEventRequested(QStringLiteral("Test/A"));
    emit module->unsubscribeToMicroEventsRequested({"Test/A", "Test/A", "Never/Subscribed"});
    drain();
    EXPECT_TRUE(robot().memory().subscribers("Test/A").empty());
    EXPECT_EQ(robot().memory().subscribers("Test/B"), std::vector<std::string> {"VXSartel"});

    // Failures of the robot leave an info line and nothing else.
    robot().scenario().failMethod("VXMemory", "subscribeToMicroEvent", "memory full");
    robot().scenario().failMethod("VXMemory", "raiseEvent", "memory read-only");
    wz::log::LogCapture logs;
    emit module->subscribeToMicroEventRequested(QStringLiteral("Test/C"));
    module->raiseEvent(QStringLiteral("Test/C"), VX::VXValue(1));
    drain();
    EXPECT_TRUE(logs.contains(wz::LogLevel_Info, "con.srtE",
                              "VXMemory::subscribeToMicroEvent on Test/C call failed : "));
    EXPECT_TRUE(logs.contains("con.srtE", "memory full"));
    EXPECT_TRUE(logs.contains(wz::LogLevel_Info, "con.srtE",
                              "VXMemory::raiseEvent on Test/C call failed : "));
    EXPECT_TRUE(logs.contains("con.srtE", "memory read-only"));
    EXPECT_TRUE(listener->dialogs.empty());
}

// ---- calls by name -----------------------------------------------------------

enum class Form { One, Six };
enum class Situation { Normal, Disabled, Missing };

struct CallCase
{
    Form form;
    bool checkEnable;
    bool showDialog;
    Situation situation;
};

std::string describe(const CallCase &c)
{
    return std::string(c.form == Form::One ? "one value" : "six values")
        + (c.checkEnable ? ", check" : ", no check") + (c.showDialog ? ", dialog" : ", silent")
        + (c.situation == Situation::Normal         ? ", normal"
               : c.situation == Situation::Disabled ? ", disabled"
                                                    : ", missing module");
}

TEST_F(SartelModuleTest, CallByNameFollowsTheTableForBothForms)
{
    for (Form form : {Form::One, Form::Six}) {
        for (bool checkEnable : {false, true}) {
            for (bool showDialog : {false, true}) {
                for (Situation situation :
                     {Situation::Normal, Situation::Disabled, Situation::Missing}) {
                    const CallCase c {form, checkEnable, showDialog, situation};
                    SCOPED_TRACE(describe(c));
                    box().enabled = situation != Situation::Disabled;
                    const QString target
                        = situation == Situation::Missing ? QStringLiteral("NoSuchBox") : k_box;
                    const uint64_t postsBefore = callCount(test::BoxService::kName, "onInput_go");
                    const uint64_t checksBefore = callCount(test::BoxService::kName, "_isEnabled")
                        + callCount(test::BoxService::kName, "isEnabled");
                    listener->dialogs.clear();

                    if (form == Form::One)
                        emit module->callProxyRequested(target, k_input, VX::VXValue(42),
                                                        checkEnable, showDialog);
                    else
                        emit module->callProxyRequested(target, checkEnable, showDialog, k_input,
                                                        VX::VXValue(42), VX::VXValue(),
                                                        VX::VXValue(), VX::VXValue(), VX::VXValue(),
                                                        VX::VXValue());
                    drain();

                    const bool posted = situation == Situation::Normal
                        || (situation == Situation::Disabled && !checkEnable);
                    if (posted) {
                        ASSERT_TRUE(robot().scenario().waitForCalls(test::BoxService::kName,
                                                                    "onInput_go", postsBefore + 1,
                                                                    test::patience()));
                        EXPECT_EQ(calls(test::BoxService::kName, "onInput_go").back(),
                                  (sim::Args {wz::AnyValue(42)}));
                    } else {
                        robotRoundTrip();
                        EXPECT_EQ(callCount(test::BoxService::kName, "onInput_go"), postsBefore);
                    }
                    const uint64_t checks = callCount(test::BoxService::kName, "_isEnabled")
                        + callCount(test::BoxService::kName, "isEnabled");
                    EXPECT_EQ(checks - checksBefore,
                              checkEnable && situation != Situation::Missing ? 1u : 0u);

                    const bool dialog = showDialog && !posted;
                    ASSERT_EQ(listener->dialogs.size(), dialog ? 1u : 0u);
                    if (dialog) {
                        const Dialog &d = listener->dialogs.front();
                        EXPECT_EQ(d.title, QStringLiteral("Failed to call IO"));
                        EXPECT_EQ(d.contents,
                                  QStringLiteral("Make sure the behavior has been played and "
                                                 "check that you do not have feedback errors from "
                                                 "your robot."));
                        const QString error = situation == Situation::Disabled
                            ? k_disabled
                            : QString::fromStdString(wz::serviceNotFoundText("NoSuchBox"));
                        EXPECT_TRUE(d.details.startsWith(
                            QStringLiteral("Tried to call:\n%1::onInput_go(%2)\n\nError:\n")
                                .arg(target, QString::fromStdString(VX::VXValue().toString(1)))))
                            << d.details.toStdString();
                        EXPECT_TRUE(d.details.endsWith(error)) << d.details.toStdString();
                    }
                }
            }
        }
    }
    // The forms ask the box in their own way.
    EXPECT_EQ(callCount(test::BoxService::kName, "_isEnabled"), 4u);
    EXPECT_EQ(callCount(test::BoxService::kName, "isEnabled"), 4u);
}

TEST_F(SartelModuleTest, SixValueFormPostsTheLeadingValidValues)
{
    emit module->callProxyRequested(k_box, false, true, k_input, VX::VXValue(1), VX::VXValue("two"),
                                    VX::VXValue(), VX::VXValue(4.0f), VX::VXValue("five"),
                                    VX::VXValue(6));
    ASSERT_TRUE(robot().scenario().waitForCalls(test::BoxService::kName, "onInput_go", 1,
                                                test::patience()));
    EXPECT_EQ(calls(test::BoxService::kName, "onInput_go").back(),
              (sim::Args {wz::AnyValue(1), wz::AnyValue("two")}));

    emit module->callProxyRequested(k_box, false, true, k_input, VX::VXValue(1), VX::VXValue(2),
                                    VX::VXValue(3), VX::VXValue(4), VX::VXValue(5),
                                    VX::VXValue(std::vector<int> {6, 6}));
    ASSERT_TRUE(robot().scenario().waitForCalls(test::BoxService::kName, "onInput_go", 2,
                                                test::patience()));
    EXPECT_EQ(calls(test::BoxService::kName, "onInput_go").back().size(), 6u);

    // No value at all: nothing reaches the robot, and nothing is shown.
    emit module->callProxyRequested(k_box, true, true, k_input, VX::VXValue(), VX::VXValue(3),
                                    VX::VXValue(), VX::VXValue(), VX::VXValue(), VX::VXValue());
    drain();
    robotRoundTrip();
    EXPECT_EQ(callCount(test::BoxService::kName, "onInput_go"), 2u);
    EXPECT_TRUE(listener->dialogs.empty());
}

TEST_F(SartelModuleTest, BoxWithoutEnableCheckIsAFailureNotADisabledBox)
{
    robot().scenario().removeMethod(test::BoxService::kName, "_isEnabled");
    emit module->callProxyRequested(k_box, k_input, VX::VXValue(1), true, true);
    drain();
    ASSERT_EQ(listener->dialogs.size(), 1u);
    const QString details = listener->dialogs.front().details;
    EXPECT_FALSE(details.contains(k_disabled)) << details.toStdString();
    EXPECT_TRUE(details.contains(QStringLiteral("_isEnabled"))) << details.toStdString();
    EXPECT_EQ(callCount(test::BoxService::kName, "onInput_go"), 0u);

    // The same without a dialog leaves no trace at all.
    wz::log::LogCapture logs;
    emit module->callProxyRequested(k_box, k_input, VX::VXValue(1), true, false);
    drain();
    EXPECT_EQ(listener->dialogs.size(), 1u);
    EXPECT_TRUE(logs.find("con.srtE", "").empty());
}

TEST(SartelModuleUnitTest, NoModuleInterfaceFailsAtOnce)
{
    // A place holder connection has no interfaces: the answer is immediate.
    RK::Connection placeHolder(nullptr, QStringLiteral("127.0.0.1"), 1, QStringLiteral("none"));
    std::vector<bool> results;
    QObject::connect(&placeHolder, &RK::Connection::connectionTested,
                     [&results](bool ok) { results.push_back(ok); });
    placeHolder.testConnection();
    EXPECT_EQ(results, std::vector<bool> {false});
    EXPECT_FALSE(placeHolder.sartelModule());
}

TEST(SartelModuleUnitTest, AModuleWithoutSessionFailsAndSaysWhy)
{
    wz::log::LogCapture logs;
    RK::VXSartel module(nullptr, nullptr);
    std::vector<bool> results;
    QObject::connect(&module, &RK::VXSartel::connectionTested,
                     [&results](bool ok) { results.push_back(ok); });
    module.triggerConnectionTest();
    EXPECT_EQ(results, std::vector<bool> {false});
    EXPECT_TRUE(logs.contains(wz::LogLevel_Warning, "con.connection",
                              "Two-way connectivity test failed: no wz::Session object provided"));
}

} // namespace
