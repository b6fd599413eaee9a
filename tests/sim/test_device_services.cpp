// The device services of the simulated robot over the wire: their state,
// their failures, the durations that a stop cuts short, the launcher's
// promise never to run anything on the host, and a restart on the same port.
#include "call_error.h"
#include "shared_robot.h"
#include "sim_test_support.h"

#include <sim/animated_speech_service.h>
#include <sim/audio_device_service.h>
#include <sim/device_services.h>
#include <sim/launcher_service.h>
#include <sim/memory_service.h>
#include <sim/robot.h>
#include <sim/text_to_speech_service.h>

#include <wz/log.h>
#include <wz/log_listener.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>

using namespace simtest;
using test::callError;
using wz::AnyValue;

namespace {

// Every source file below `dir`, recursively (documentation may name
// what the code must not call).
void listFiles(const std::string &dir, std::vector<std::string> &out)
{
    DIR *d = opendir(dir.c_str());
    if (!d)
        return;
    while (dirent *e = readdir(d)) {
        const std::string name = e->d_name;
        if (name == "." || name == "..")
            continue;
        const std::string path = dir + "/" + name;
        const auto endsWith = [&name](const std::string &tail) {
            return name.size() >= tail.size()
                && name.compare(name.size() - tail.size(), tail.size(), tail) == 0;
        };
        if (e->d_type == DT_DIR)
            listFiles(path, out);
        else if (endsWith(".cpp") || endsWith(".h") || name == "CMakeLists.txt")
            out.push_back(path);
    }
    closedir(d);
}

class DeviceServices : public test::SharedRobotTest
{
protected:
    void SetUp() override { client = connectTo(robot()); }
    void TearDown() override
    {
        client->close().wait(10000);
        robot().scenario().reset();
        robot().serviceAs<sim::LauncherService>("VXLauncher")->reset();
        robot().serviceAs<sim::TextToSpeechService>("VXTextToSpeech")->reset();
        robot().serviceAs<sim::AudioDeviceService>("VXAudioDevice")->reset();
    }
    wz::Object service(const std::string &name) { return client->service(name).value(10000); }

    boost::shared_ptr<wz::Session> client;
};

} // namespace

TEST(SimSources, NothingRunsOnTheHost)
{
    std::vector<std::string> files;
    listFiles(SIM_SOURCE_DIR, files);
    ASSERT_GT(files.size(), 10u) << SIM_SOURCE_DIR;
    const std::regex forbidden(
        R"(\b(system|popen|fork|vfork|execl|execle|execlp|execv|execve|execvp|execvpe|posix_spawnp?)\s*\(|QProcess)");
    for (const std::string &path : files) {
        std::ifstream in(path);
        std::string line;
        for (int n = 1; std::getline(in, line); ++n)
            EXPECT_FALSE(std::regex_search(line, forbidden)) << path << ":" << n << ": " << line;
    }
    // The pattern itself catches what it is meant to.
    EXPECT_TRUE(std::regex_search(std::string("  ::system (\"rm\");"), forbidden));
    EXPECT_TRUE(std::regex_search(std::string("execvp(argv[0], argv)"), forbidden));
    EXPECT_FALSE(std::regex_search(std::string("boost::system::error_code ec;"), forbidden));
}

TEST_F(DeviceServices, LauncherAnswersFromItsTableAndRecordsEveryRequest)
{
    auto *launcher = robot().serviceAs<sim::LauncherService>("VXLauncher");
    launcher->setDurationScale(0.01);
    const wz::Object o = service("VXLauncher");
    const std::vector<std::string> args {"-v", "--all"};
    EXPECT_EQ(o.call<int>("_launchWait", std::string("true"), args), 0);
    EXPECT_EQ(o.call<int>("_launchWait", std::string("self-check"), std::vector<std::string>()), 3);
    EXPECT_EQ(o.call<int>("_launchWait", std::string("segfault"), std::vector<std::string>()), -11);
    EXPECT_EQ(callError(o, "_launchWait", {AnyValue("rm"), AnyValue(AnyValue::List {"-rf", "/"})}),
              "command not found: rm");

    const std::vector<sim::LauncherService::Launch> launches = launcher->launches();
    ASSERT_EQ(launches.size(), 4u);
    EXPECT_EQ(launches[0].command, "true");
    EXPECT_EQ(launches[0].args, args);
    EXPECT_TRUE(launches[1].completed);
    EXPECT_EQ(launches[3].command, "rm");
    EXPECT_EQ(launches[3].args, (std::vector<std::string> {"-rf", "/"}));
}

TEST_F(DeviceServices, SpeechTakesItsTimeAndStopAllCutsItShort)
{
    auto *tts = robot().serviceAs<sim::TextToSpeechService>("VXTextToSpeech");
    tts->setWordDuration(std::chrono::milliseconds(2));
    const wz::Object o = service("VXTextToSpeech");
    o.call<std::string>("say", std::string("three short words"));
    ASSERT_EQ(tts->spoken().size(), 1u);
    EXPECT_TRUE(tts->spoken()[0].completed);

    // A sentence that would take minutes ends on stopAll from another client call.
    tts->setWordDuration(std::chrono::minutes(1));
    wz::Future<AnyValue> saying = o->metaCall("say", {AnyValue("a very long sentence")});
    ASSERT_TRUE(test::waitUntil([&] { return tts->speaking() == 1; }));
    o.call<void>("stopAll");
    ASSERT_NE(saying.wait(10000), wz::FutureState_Running);
    EXPECT_FALSE(saying.hasError(0));
    ASSERT_EQ(tts->spoken().size(), 2u);
    EXPECT_FALSE(tts->spoken()[1].completed);

    EXPECT_EQ(o.call<std::vector<std::string>>("getAvailableLanguages"),
              sim::TextToSpeechService::availableLanguages());
    EXPECT_EQ(callError(o, "setLanguage", {AnyValue("Klingon")}),
              "language \"Klingon\" is not installed");
}

TEST_F(DeviceServices, AnimatedSpeechSpeaksTheNarrationWithoutItsTags)
{
    EXPECT_EQ(sim::AnimatedSpeechService::stripTags("^greeting Hello ^bow(deep)  there ^yes"),
              "Hello there");
    EXPECT_EQ(sim::AnimatedSpeechService::stripTags("3 ^ 4 ^open(never closed"), "3 ^ 4");

    auto *tts = robot().serviceAs<sim::TextToSpeechService>("VXTextToSpeech");
    tts->setWordDuration(std::chrono::milliseconds(1));
    service("VXAnimatedSpeech").call<std::string>("interpretText", std::string("^greeting Hi you"));
    ASSERT_EQ(tts->spoken().size(), 1u);
    EXPECT_EQ(tts->spoken()[0].text, "Hi you");

    robot().scenario().omitService("VXTextToSpeech");
    EXPECT_EQ(callError(service("VXAnimatedSpeech"), "interpretText", {AnyValue("^yes Hi")}),
              "VXAnimatedSpeech needs VXTextToSpeech, which is not running");
}

TEST_F(DeviceServices, VolumeChangesAreEventsAndOutOfRangeFails)
{
    auto inbox = std::make_shared<Inbox>();
    const unsigned id = client->registerService("AudioWatcher", makeModule(inbox)).value(10000);
    ASSERT_GT(id, 0u);
    service("VXMemory")
        .call<void>("subscribeToMicroEvent", std::string("AudioOutputChanged"),
                    std::string("AudioWatcher"), std::string(""), std::string("onEvent"));
    const wz::Object o = service("VXAudioDevice");
    o.call<void>("setOutputVolume", 35);
    o.call<void>("setOutputVolume", 35); // no change, no event
    o.call<void>("muteAudioOut", true);
    EXPECT_EQ(callError(o, "setOutputVolume", {AnyValue(101)}), "volume is 0 to 100, not 101");
    ASSERT_TRUE(inbox->waitFor(2));
    const std::vector<sim::Args> got = inbox->got();
    EXPECT_EQ(got[0][1].repr(), AnyValue(AnyValue::List {35, false}).repr());
    EXPECT_EQ(got[1][1].repr(), AnyValue(AnyValue::List {35, true}).repr());
    EXPECT_EQ(o.call<int>("getOutputVolume"), 35);
    EXPECT_EQ(service("VXBattery").call<int>("getBatteryLevel"), 4); // 87 %
}

TEST_F(DeviceServices, ChatterIsNumberedAndReachesAListener)
{
    auto listener
        = service("LogManager").call<boost::shared_ptr<wz::LogListenerProxy>>("getListener");
    ASSERT_TRUE(listener);
    // Messages already on their way arrive after the test has returned: what
    // they write to outlives it.
    struct Received
    {
        std::mutex mutex;
        std::vector<std::string> lines;
    };
    const auto received = std::make_shared<Received>();
    std::mutex &mutex = received->mutex;
    std::vector<std::string> &got = received->lines;
    listener->onLogMessage
        .connect([received](const wz::LogMessage &m) {
            if (m.category != "test.chatter")
                return;
            std::lock_guard<std::mutex> lock(received->mutex);
            received->lines.push_back(m.message);
        })
        .value(10000);
    auto *logs = robot().serviceAs<sim::LogManagerService>("LogManager");
    wz::log::setStderrEnabled(false);
    const uint64_t first = logs->sent();
    logs->setChatter({2000, "test.chatter", wz::LogLevel_Error});
    const bool arrived = test::waitUntil([&] {
        std::lock_guard<std::mutex> lock(mutex);
        return got.size() >= 200;
    });
    logs->setChatter({0, "test.chatter", wz::LogLevel_Error});
    wz::log::setStderrEnabled(true);
    ASSERT_TRUE(arrived);
    std::lock_guard<std::mutex> lock(mutex);
    for (size_t i = 0; i < 200; ++i)
        ASSERT_EQ(got[i], "chatter " + std::to_string(first + i));
}

TEST(SimRestart, ANewRobotListensOnThePortOfTheOldOne)
{
    auto robot = std::make_unique<sim::Robot>();
    robot->start();
    const wz::Url url = robot->url();
    auto client = connectTo(*robot);
    auto *launcher = robot->serviceAs<sim::LauncherService>("VXLauncher");
    launcher->setDurationScale(1000); // minutes
    wz::Future<AnyValue> longLaunch
        = client->service("VXLauncher")
              .value(10000)
              ->metaCall("_launchWait", {AnyValue("self-check"), AnyValue(AnyValue::List {})});
    ASSERT_TRUE(test::waitUntil([&] { return launcher->launches().size() == 1; }));

    // Stopping cuts the pretend command short rather than waiting for it.
    robot->stop();
    ASSERT_NE(longLaunch.wait(10000), wz::FutureState_Running);
    EXPECT_TRUE(longLaunch.hasError(0));
    EXPECT_FALSE(launcher->launches()[0].completed);
    robot.reset();

    sim::RobotOptions options;
    options.listenUrl = url.str();
    sim::Robot again(options);
    again.start();
    EXPECT_EQ(again.url().port(), url.port());
    auto next = connectTo(again);
    EXPECT_EQ(next->service("VXBattery").value(10000).call<int>("getBatteryCharge"), 87);
    next->close().wait(10000);
}

// Standard error as a pipe that nobody reads, as when a parent forgot it:
// logging must not block the robot's I/O, so every call is still served.
TEST(SimLogging, AnUndrainedStandardErrorNeverWedgesTheRobot)
{
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const int savedStderr = dup(2);
    ASSERT_GE(savedStderr, 0);
    std::fflush(stderr);
    dup2(fds[1], 2);
    const wz::LogLevel level = wz::log::logLevel();
    wz::log::setLogLevel(wz::LogLevel_Info);

    bool served = true;
    {
        sim::RobotOptions options;
        options.verbose = true; // one info line per call
        sim::Robot robot(options);
        robot.start();
        auto client = connectTo(robot);
        const wz::Object battery = client->service("VXBattery").value(10000);
        // Far more than a pipe holds.
        for (int i = 0; i < 3000 && served; ++i) {
            wz::Future<AnyValue> f = battery->metaCall("getBatteryCharge", {});
            served = f.wait(10000) != wz::FutureState_Running && !f.hasError(0);
        }
        client->close().wait(10000);
    }

    wz::log::setLogLevel(level);
    // No flush here: the log's writer holds the stream while it is blocked.
    dup2(savedStderr, 2);
    close(savedStderr);
    // Let the log's writer finish what it holds; the read end stays open so
    // that a late write never meets a closed pipe.
    fcntl(fds[0], F_SETFL, O_NONBLOCK);
    char buffer[65536];
    for (int quiet = 0; quiet < 20;) {
        if (read(fds[0], buffer, sizeof buffer) > 0)
            quiet = 0;
        else
            ++quiet, std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_TRUE(served);
}
