// A client session against one in-process simulated robot, over TCP.
#include "call_error.h"
#include "shared_robot.h"
#include "sim_test_support.h"

#include <sim/desktop_hooks.h>
#include <sim/device_services.h>
#include <sim/memory_service.h>
#include <sim/robot.h>

#include <wz/log.h>
#include <wz/log_listener.h>
#include <wz/object_builder.h>

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <vector>

using namespace simtest;
using test::callError;
using wz::AnyValue;

namespace {

class SimRobot : public test::SharedRobotTest
{
protected:
    void SetUp() override
    {
        client = connectTo(robot());
        memory = client->service("VXMemory").value(10000);
    }
    void TearDown() override
    {
        client->close().wait(10000);
        robot().scenario().reset();
        robot().scenario().releaseReadiness();
    }

    boost::shared_ptr<wz::Session> client;
    wz::Object memory;
};

TEST_F(SimRobot, OffersEveryServiceABindingLooksFor)
{
    const char *expected[] = {"VXMemory",
                              "VXFrameManager",
                              "VXBehaviorManager",
                              "VXRobotModel",
                              "VXMotion",
                              "VXPreferences",
                              "LogManager",
                              "VXResourceManager",
                              "VXMotionRecorder",
                              "VXVideoDevice",
                              "VXVisionRecognition",
                              "VXRobotPosture",
                              "VXMemoryWatcher",
                              "VXAudioDevice",
                              "VXTextToSpeech",
                              "VXBattery",
                              "VXLauncher",
                              "VXDialog",
                              "VXWorldRepresentation",
                              "PackageManager",
                              "VXEngagementZones",
                              "VXPeoplePerception",
                              "VXBasicAwareness",
                              "VXAutonomousLife",
                              "DCM"};
    for (const char *name : expected)
        EXPECT_TRUE(listed(*client, name)) << name;

    EXPECT_EQ(memory.call<std::string>("version"), "2.1.4.13");
    EXPECT_TRUE(memory.call<bool>("getData", "MorvaneReady"));
    const wz::Object battery = client->service("VXBattery").value(10000);
    EXPECT_EQ(battery.call<int>("getBatteryCharge"), 87);

    // A service nobody has filled in yet answers as an older robot would.
    const wz::Object dcm = client->service("DCM").value(10000);
    EXPECT_EQ(callError(dcm, "notInThisRelease", {AnyValue("Body"), AnyValue(true)}),
              wz::methodNotFoundText("notInThisRelease", 2, "DCM"));
    EXPECT_EQ(client->service("VXNoSuch").error(10000), wz::serviceNotFoundText("VXNoSuch"));
}

TEST_F(SimRobot, HttpPortIsTheFileServers)
{
    const wz::Object packages = client->service("PackageManager").value(10000);
    const int port = packages.call<int>("_getHttpTransferPort");
    ASSERT_GT(port, 0);
    EXPECT_EQ(port, robot().httpTransferPort());

    namespace asio = boost::asio;
    asio::io_context io;
    asio::ip::tcp::socket socket(io);
    socket.connect({asio::ip::make_address("127.0.0.1"), static_cast<unsigned short>(port)});
    const std::string request = "GET / HTTP/1.1\r\n\r\n";
    asio::write(socket, asio::buffer(request));
    std::string reply(12, '\0');
    asio::read(socket, asio::buffer(&reply[0], reply.size()));
    EXPECT_EQ(reply, "HTTP/1.1 200");
}

TEST_F(SimRobot, KeysReadWriteAndFailLikeARobot)
{
    memory.call<void>("insertData", "Test/Int", 7);
    memory.call<void>("insertData", "Test/List", std::vector<std::string> {"a", "b"});
    EXPECT_EQ(memory.call<int>("getData", "Test/Int"), 7);
    EXPECT_EQ(memory.call<std::string>("getType", "Test/List"), "Array");
    EXPECT_EQ(memory.call<std::vector<std::string>>("getDataList", "Test/"),
              (std::vector<std::string> {"Test/Int", "Test/List"}));
    const auto values = memory.call<AnyValue::List>(
        "getListData", std::vector<std::string> {"Test/Int", "Test/Missing"});
    ASSERT_EQ(values.size(), 2u);
    EXPECT_EQ(values[0].toInt(), 7);
    EXPECT_FALSE(values[1].isValid());

    EXPECT_EQ(callError(memory, "getData", {AnyValue("Test/Missing")}),
              "key \"Test/Missing\" not found");
    // Values of the wrong shape get a clear error, not a crash.
    EXPECT_NE(callError(memory, "getData", {AnyValue(42)}), "");
    EXPECT_NE(
        callError(memory, "insertListData", {AnyValue(AnyValue::List {AnyValue(1)})}).find("pairs"),
        std::string::npos);

    memory.call<void>("removeData", "Test/Int");
    memory.call<void>("removeData", "Test/List");
    EXPECT_EQ(callError(memory, "removeData", {AnyValue("Test/Int")}),
              "key \"Test/Int\" not found");
    EXPECT_TRUE(memory.call<std::vector<std::string>>("getDataList", "Test/").empty());
}

TEST_F(SimRobot, MicroEventsReachTheClientsOwnModule)
{
    auto inbox = std::make_shared<Inbox>();
    client->registerService("TestModule", makeModule(inbox)).value(10000);
    memory.call<void>("subscribeToMicroEvent", "Test/Micro", "TestModule", "hello", "onEvent");
    memory.call<void>("subscribeToMicroEvent", "VXMemory/KeyRemoved", "TestModule", "", "onEvent");
    memory.call<void>("subscribeToEvent", "Test/Event", "TestModule", "onEvent");
    EXPECT_EQ(memory.call<std::vector<std::string>>("getMicroEventList").size(), 2u);

    memory.call<void>("raiseMicroEvent", "Test/Micro", 5);
    robot().scenario().raiseMicroEvent("Test/Micro", std::string("from robot"));
    robot().scenario().raiseEvent("Test/Event", 1.5);
    memory.call<void>("insertData", "Test/Key", 1);
    memory.call<void>("removeData", "Test/Key");
    ASSERT_TRUE(inbox->waitFor(4));

    const auto got = inbox->got();
    EXPECT_EQ(got[0], (sim::Args {AnyValue("Test/Micro"), AnyValue(5), AnyValue("hello")}));
    EXPECT_EQ(got[1],
              (sim::Args {AnyValue("Test/Micro"), AnyValue("from robot"), AnyValue("hello")}));
    EXPECT_EQ(got[2], (sim::Args {AnyValue("Test/Event"), AnyValue(1.5), AnyValue("")}));
    EXPECT_EQ(got[3],
              (sim::Args {AnyValue("VXMemory/KeyRemoved"), AnyValue("Test/Key"), AnyValue("")}));

    // After unsubscribing, a later event on a still-subscribed name arrives
    // alone: deliveries keep their order, so the first would have come before.
    memory.call<void>("unsubscribeToMicroEvent", "Test/Micro", "TestModule");
    memory.call<void>("raiseMicroEvent", "Test/Micro", 6);
    robot().scenario().raiseEvent("Test/Event", 2.5);
    ASSERT_TRUE(inbox->waitFor(5));
    EXPECT_EQ(inbox->got().at(4).at(1), AnyValue(2.5));

    // removeMicroEvent ends the subscriptions and says so on KeyRemoved.
    memory.call<void>("removeMicroEvent", "Test/Event");
    ASSERT_TRUE(inbox->waitFor(6));
    EXPECT_EQ(inbox->got().at(5).at(1), AnyValue("Test/Event"));
    memory.call<void>("unsubscribeToMicroEvent", "VXMemory/KeyRemoved", "TestModule");
    EXPECT_EQ(robot().memory().subscriberModuleCount(), 0u);

    // A module may be subscribed before it is registered: it is looked up at
    // each delivery (what comes before it exists is dropped).
    auto late = std::make_shared<Inbox>();
    memory.call<void>("subscribeToMicroEvent", "Test/Late", "LateModule", "", "onEvent");
    memory.call<void>("raiseMicroEvent", "Test/Late", 1);
    client->registerService("LateModule", makeModule(late)).value(10000);
    memory.call<void>("raiseMicroEvent", "Test/Late", 2);
    ASSERT_TRUE(test::waitUntil([&] {
        const auto got = late->got();
        return !got.empty() && got.back().at(1) == AnyValue(2);
    }));
    memory.call<void>("unsubscribeToMicroEvent", "Test/Late", "LateModule");
    EXPECT_EQ(robot().memory().subscriberModuleCount(), 0u);
}

TEST_F(SimRobot, BlockedCallbacksAreLostSilently)
{
    auto inbox = std::make_shared<Inbox>();
    client->registerService("Firewalled", makeModule(inbox)).value(10000);
    memory.call<void>("subscribeToMicroEvent", "Test/Blocked", "Firewalled", "", "onEvent");
    robot().scenario().blockCallbacks("Firewalled");
    memory.call<void>("raiseMicroEvent", "Test/Blocked", 1);
    robot().scenario().blockCallbacks("Firewalled", false);
    memory.call<void>("raiseMicroEvent", "Test/Blocked", 2);
    ASSERT_TRUE(inbox->waitFor(1));
    EXPECT_EQ(inbox->got().at(0).at(1), AnyValue(2));
    memory.call<void>("removeMicroEvent", "Test/Blocked");
}

// A micro event held up on its way: it reaches the modules subscribed when
// it was raised, no sooner than the delay, even after they unsubscribed;
// other events are not held.
TEST_F(SimRobot, ADelayedMicroEventComesLateToItsSubscribersOfThen)
{
    using Clock = std::chrono::steady_clock;
    struct Arrival
    {
        std::string name;
        Clock::time_point at;
    };
    auto arrivals = std::make_shared<std::vector<Arrival>>();
    auto mutex = std::make_shared<std::mutex>();
    wz::DynamicObjectBuilder b("TestModule");
    b.advertiseMethod("onEvent", 3, [arrivals, mutex](const sim::Args &args) {
        std::lock_guard<std::mutex> lock(*mutex);
        arrivals->push_back({args.at(0).toStr(), Clock::now()});
        return AnyValue();
    });
    client->registerService("Delayed", b.object()).value(10000);
    memory.call<void>("subscribeToMicroEvent", "Test/Delayed", "Delayed", "", "onEvent");
    memory.call<void>("subscribeToMicroEvent", "Test/Other", "Delayed", "", "onEvent");

    const auto delay = 300ms;
    sim::delayMicroEvent(robot(), "Test/Delayed", delay);
    const Clock::time_point raised = Clock::now();
    memory.call<void>("raiseMicroEvent", "Test/Delayed", 1);
    memory.call<void>("unsubscribeToMicroEvent", "Test/Delayed", "Delayed");
    memory.call<void>("raiseMicroEvent", "Test/Other", 2);
    auto count = [&] {
        std::lock_guard<std::mutex> lock(*mutex);
        return arrivals->size();
    };
    ASSERT_TRUE(test::waitUntil([&] { return count() == 2; }));
    std::lock_guard<std::mutex> lock(*mutex);
    const auto delayed = std::find_if(arrivals->begin(), arrivals->end(),
                                      [](const Arrival &a) { return a.name == "Test/Delayed"; });
    ASSERT_NE(delayed, arrivals->end());
    EXPECT_GE(delayed->at - raised, delay);
    EXPECT_EQ(robot().memory().subscribers("Test/Delayed"), std::vector<std::string> {});
}

TEST_F(SimRobot, ReadinessCanBeDelayedOrHeld)
{
    robot().scenario().holdReadinessFor(std::chrono::milliseconds(400));
    EXPECT_FALSE(memory.call<bool>("getData", "MorvaneReady"));
    EXPECT_TRUE(test::waitUntil([&] { return memory.call<bool>("getData", "MorvaneReady"); }));

    robot().scenario().holdReadiness();
    EXPECT_FALSE(memory.call<bool>("getData", "MorvaneReady"));
    // A delay given earlier must not release a hold that came later.
    robot().scenario().holdReadinessFor(std::chrono::milliseconds(50));
    robot().scenario().holdReadiness();
    // The timer thread runs its tasks in the order they fall due: once a
    // later one has run, so has (or would have) the delayed release.
    auto passed = std::make_shared<std::atomic<bool>>(false);
    robot().schedule(std::chrono::milliseconds(100), [passed] { *passed = true; });
    ASSERT_TRUE(test::waitUntil([&] { return passed->load(); }));
    EXPECT_FALSE(memory.call<bool>("getData", "MorvaneReady"));
    robot().scenario().releaseReadiness();
    EXPECT_TRUE(memory.call<bool>("getData", "MorvaneReady"));
}

TEST_F(SimRobot, InjectedMethodFaults)
{
    sim::Scenario &s = robot().scenario();
    const wz::Object battery = client->service("VXBattery").value(10000);

    s.failMethod("VXBattery", "getBatteryCharge", "battery board not answering");
    EXPECT_EQ(callError(battery, "getBatteryCharge"), "battery board not answering");

    s.restoreMethod("VXBattery", "getBatteryCharge");
    s.replaceMethod("VXBattery", "getBatteryCharge", [](const sim::Args &) { return AnyValue(3); });
    EXPECT_EQ(battery.call<int>("getBatteryCharge"), 3);

    s.delayMethod("VXBattery", "getBatteryCharge", std::chrono::milliseconds(300));
    const auto start = std::chrono::steady_clock::now();
    wz::Future<int> slow = battery.async<int>("getBatteryCharge");
    EXPECT_EQ(slow.wait(100), wz::FutureState_Running);
    EXPECT_EQ(slow.value(10000), 3);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));

    // The getters answer on the I/O thread, but not one a rule holds: the
    // robot's other calls are still answered meanwhile.
    s.holdMethod("VXBattery", "getBatteryCharge");
    wz::Future<int> held = battery.async<int>("getBatteryCharge");
    ASSERT_TRUE(s.waitForCalls("VXBattery", "getBatteryCharge", 1, test::patience()));
    const wz::Object memory = client->service("VXMemory").value(10000);
    wz::Future<bool> ready = memory.async<bool>("getData", "MorvaneReady");
    ASSERT_EQ(ready.wait(static_cast<int>(test::patience().count())),
              wz::FutureState_FinishedWithValue);
    EXPECT_TRUE(held.isRunning());
    s.restoreMethod("VXBattery", "getBatteryCharge");
    EXPECT_EQ(held.wait(10000), wz::FutureState_FinishedWithValue) << held.error();

    // A removed method leaves the meta-object of a fresh look-up, and a
    // handle taken before gets the same "method not found".
    s.removeMethod("VXBattery", "getBatteryCharge");
    const wz::Object fresh = client->service("VXBattery").value(10000);
    EXPECT_TRUE(fresh.metaObject().findMethod("getBatteryCharge").empty());
    const std::string notFound = wz::methodNotFoundText("getBatteryCharge", 0, "VXBattery");
    EXPECT_EQ(callError(fresh, "getBatteryCharge"), notFound);
    EXPECT_EQ(callError(battery, "getBatteryCharge"), notFound);

    s.restoreMethod("VXBattery", "getBatteryCharge");
    const wz::Object back = client->service("VXBattery").value(10000);
    EXPECT_EQ(back.call<int>("getBatteryCharge"), 87);

    // A method the service lacks can be added for a test.
    s.addMethod("VXBattery", "getCellVoltages", 2, [](const sim::Args &a) {
        return AnyValue(AnyValue::List {AnyValue(a.at(0).toStr().size() * 0.5)});
    });
    const wz::Object withCells = client->service("VXBattery").value(10000);
    EXPECT_EQ(withCells.call<std::vector<double>>("getCellVoltages", "Head", true),
              std::vector<double> {2.0});
}

TEST_F(SimRobot, CallLogTellsWhatReachedTheRobot)
{
    sim::Scenario &s = robot().scenario();
    const wz::Object battery = client->service("VXBattery").value(10000);
    battery.call<int>("getBatteryCharge");
    s.failMethod("VXBattery", "getBatteryCharge", "no");
    callError(battery, "getBatteryCharge");
    s.removeMethod("VXBattery", "getBatteryCharge");
    callError(battery, "getBatteryCharge");
    memory.call<void>("insertData", "Log/Key", std::vector<int> {1, 2});

    EXPECT_EQ(s.callCount("VXBattery", "getBatteryCharge"), 2u);
    const auto inserts = s.calls("VXMemory", "insertData");
    ASSERT_EQ(inserts.size(), 1u);
    EXPECT_EQ(
        inserts[0],
        (sim::Args {AnyValue("Log/Key"), AnyValue(AnyValue::List {AnyValue(1), AnyValue(2)})}));
    memory.call<void>("removeData", "Log/Key");
}

TEST_F(SimRobot, OmittedServiceIsNotFound)
{
    robot().scenario().omitService("VXBattery");
    EXPECT_FALSE(listed(*client, "VXBattery"));
    EXPECT_EQ(client->service("VXBattery").error(10000), wz::serviceNotFoundText("VXBattery"));
    robot().scenario().restoreService("VXBattery");
    EXPECT_EQ(client->service("VXBattery").value(10000).call<int>("getBatteryCharge"), 87);
}

TEST_F(SimRobot, LogListenerCarriesTheRobotsLog)
{
    const wz::Object logManager = client->service("LogManager").value(10000);
    auto listener = logManager.call<boost::shared_ptr<wz::LogListenerProxy>>("getListener");
    ASSERT_TRUE(listener);
    std::mutex mutex;
    std::vector<wz::LogMessage> got;
    listener->onLogMessage
        .connect([&](const wz::LogMessage &m) {
            std::lock_guard<std::mutex> lock(mutex);
            got.push_back(m);
        })
        .value(10000);
    listener->setCategory("sim.test", wz::LogLevel_Warning).value(10000);
    const wz::LogLevel before = wz::log::logLevel();
    wz::log::setLogLevel(wz::LogLevel_Debug);
    wz::log::LogStream(wz::LogLevel_Info, "sim.test", __FUNCTION__) << "filtered out";
    wz::log::LogStream(wz::LogLevel_Warning, "sim.test", __FUNCTION__) << "robot says hello";
    wz::log::setLogLevel(before);
    EXPECT_TRUE(test::waitUntil([&] {
        std::lock_guard<std::mutex> lock(mutex);
        return std::any_of(got.begin(), got.end(),
                           [](const wz::LogMessage &m) { return m.message == "robot says hello"; });
    }));
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_TRUE(std::none_of(got.begin(), got.end(),
                             [](const wz::LogMessage &m) { return m.message == "filtered out"; }));
}

TEST_F(SimRobot, ConnectionFaultsReachTheClient)
{
    wz::log::LogCapture capture;
    std::atomic<int> lost {0};
    client->disconnected.connect([&](const std::string &) { ++lost; });
    ASSERT_TRUE(test::waitUntil([&] { return robot().scenario().clients().size() == 1; }));
    robot().scenario().dropClients();
    EXPECT_TRUE(test::waitUntil([&] { return lost > 0; }));
    EXPECT_FALSE(client->isConnected());
    EXPECT_NE(callError(memory, "version").find("disconnected"), std::string::npos);

    // Garbage on the wire: the client closes the connection with a reason.
    auto second = connectTo(robot());
    std::atomic<int> lost2 {0};
    second->disconnected.connect([&](const std::string &) { ++lost2; });
    ASSERT_TRUE(test::waitUntil([&] { return robot().scenario().clients().size() == 1; }));
    robot().scenario().sendRaw(robot().scenario().clients().at(0),
                               std::string("\xff\xff\xff\x7f garbage that is no frame", 30));
    EXPECT_TRUE(test::waitUntil([&] { return lost2 > 0; }));
    second->close().wait(10000);

    // A stalled robot: the call hangs until the heartbeat gives up on it.
    auto third = boost::make_shared<wz::Session>();
    third->setHeartbeat(std::chrono::milliseconds(100), std::chrono::milliseconds(800));
    third->connect(robot().url()).value(10000);
    const wz::Object mem3 = third->service("VXMemory").value(10000);
    ASSERT_TRUE(test::waitUntil([&] { return robot().scenario().clients().size() == 1; }));
    robot().scenario().stallClient(robot().scenario().clients().at(0));
    wz::Future<AnyValue> hanging = mem3->metaCall("version", {});
    EXPECT_EQ(hanging.wait(300), wz::FutureState_Running);
    EXPECT_EQ(hanging.wait(10000), wz::FutureState_FinishedWithError);
    EXPECT_NE(hanging.error(0).find("disconnected"), std::string::npos);
    third->close().wait(10000);

    // The robot goes on serving.
    auto fourth = connectTo(robot());
    EXPECT_EQ(fourth->service("VXMemory").value(10000).call<std::string>("version"), "2.1.4.13");
    fourth->close().wait(10000);
}

} // namespace
