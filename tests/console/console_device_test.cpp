// The device commands (status, battery, audio, speech, dialog,
// configuration, launcher, log, memory, events, calls by name) in every
// situation that applies to them.

#include "console_rows.h"

#include <QRegularExpression>

#include <sim/launcher_service.h>

namespace {

using namespace test::rows;

class DeviceCommands : public test::ConsoleRows
{
};

TEST_F(DeviceCommands, StatusBatteryAudioConfig)
{
    check({
        {Words {"status"}, Situation::Success, ExitOk, "Two-way test    passed"},
        {Words {"status", "--json"}, Situation::Success, ExitOk, "json:twoWayTest"},
        {Words {"status", "--bogus"}, Situation::BadArgument, ExitUsage,
         "status has no option --bogus"},
        {Words {"status", "--stay", "--json"}, Situation::BadArgument, ExitUsage, "--stay"},

        {Words {"battery"}, Situation::Success, ExitOk, "Battery         "},
        {Words {"battery", "--json"}, Situation::Success, ExitOk, "json:charge"},
        {Words {"battery"}, Situation::Omitted, ExitCommandFailed,
         omittedText("VXBattery", "battery"), "VXBattery"},
        {Words {"battery", "full"}, Situation::BadArgument, ExitUsage, "battery does not take"},

        {Words {"audio"}, Situation::Success, ExitOk, "Volume          "},
        {Words {"audio", "40", "--json"}, Situation::Success, ExitOk, "json:languages"},
        {Words {"audio"}, Situation::Omitted, ExitCommandFailed,
         omittedText("VXAudioDevice", "audio"), "VXAudioDevice"},
        {Words {"audio"}, Situation::Omitted, ExitCommandFailed,
         omittedText("VXTextToSpeech", "audio"), "VXTextToSpeech"},
        {Words {"audio", "101"}, Situation::BadArgument, ExitUsage, "from 0 to 100"},
        {Words {"audio", "--mute", "--unmute"}, Situation::BadArgument, ExitUsage,
         "exclude each other"},

        {Words {"config"}, Situation::Success, ExitOk, "Configuration   "},
        {Words {"config", "--file", "--json"}, Situation::Success, ExitOk, "json:file"},
        {Words {"config", "--resources"}, Situation::Success, ExitOk, "Owners"},
        {Words {"config", "--file"},
         Situation::Refused,
         ExitCommandFailed,
         "getConfigFile: remote exception: no",
         {},
         [](sim::Robot &r) { r.scenario().failMethod("VXRobotModel", "getConfigFile", "no"); }},
        {Words {"config"}, Situation::Omitted, ExitCommandFailed,
         omittedText("VXRobotModel", "config"), "VXRobotModel"},
        {Words {"config", "--file", "--resources"}, Situation::BadArgument, ExitUsage, "not both"},
    });
}

TEST_F(DeviceCommands, SpeechDialogAndCalls)
{
    check({
        {Words {"say", "hello", "there"}, Situation::Success, ExitOk, "Done in"},
        {Words {"say", "hello"},
         Situation::Refused,
         ExitCommandFailed,
         "mouth closed",
         {},
         [](sim::Robot &r) { r.scenario().failMethod("VXTextToSpeech", "say", "mouth closed"); }},
        {Words {"say", "hello"}, Situation::Omitted, ExitCommandFailed,
         omittedText("VXTextToSpeech", "say"), "VXTextToSpeech"},
        {Words {"say", "one", "two", "three", "four", "five", "six"}, Situation::Lost,
         ExitNoConnection, lostText(), "Saying",
         [](sim::Robot &r) {
             r.scenario().delayMethod("VXTextToSpeech", "say", std::chrono::seconds(5));
         }},
        {Words {"say"}, Situation::BadArgument, ExitUsage, "say wants a text"},

        {Words {"tell", "hi"}, Situation::Success, ExitOk, "Robot           "},
        {Words {"tell", "hi"}, Situation::Omitted, ExitCommandFailed,
         omittedText("VXDialog", "tell"), "VXDialog"},
        {Words {"tell"}, Situation::BadArgument, ExitUsage, "tell wants a sentence"},

        {Words {"call", "VXTextToSpeech", "say", "hi"}, Situation::Success, ExitOk,
         "Posted VXTextToSpeech.say(\"hi\")"},
        {Words {"call", "VXTextToSpeech", "say", "hi"}, Situation::Omitted, ExitCommandFailed,
         "the robot offers no VXTextToSpeech", "VXTextToSpeech"},
        {Words {"call", "VXTextToSpeech"}, Situation::BadArgument, ExitUsage,
         "call wants MODULE METHOD"},
    });
}

// Names go out as UTF-8: the robot finds a command by its name, accents and
// all.
TEST_F(DeviceCommands, Launch)
{
    const auto unicode = [](sim::Robot &r) {
        r.serviceAs<sim::LauncherService>("VXLauncher")
            ->addCommand("ünïcödé", sim::LauncherService::Command {});
    };
    check({
        {Words {"launch", "true"}, Situation::Success, ExitOk, "Succeeded"},
        {Words {"launch", "ünïcödé"}, Situation::Success, ExitOk, "Succeeded", {}, unicode},
        {Words {"launch", "false"}, Situation::Refused, ExitCommandFailed,
         "returned an error code (1)"},
        {Words {"launch", "nosuchthing"}, Situation::Refused, ExitCommandFailed,
         "command not found: nosuchthing"},
        {Words {"launch", "true"}, Situation::Omitted, ExitCommandFailed,
         omittedText("VXLauncher", "launch"), "VXLauncher"},
        {Words {"launch", "sync"}, Situation::Lost, ExitNoConnection, lostText(),
         "Running on the robot",
         [](sim::Robot &r) {
             r.serviceAs<sim::LauncherService>("VXLauncher")->setDurationScale(50);
         }},
        // The robot's call ends before the console lets go of it: a short
        // command keeps the row short.
        {Words {"launch", "sync"}, Situation::Interrupted, ExitInterrupted, "interrupted",
         "Running on the robot",
         [](sim::Robot &r) {
             r.serviceAs<sim::LauncherService>("VXLauncher")->setDurationScale(1);
         }},
        {Words {"launch"}, Situation::BadArgument, ExitUsage, "launch wants a command"},
    });
    robot().serviceAs<sim::LauncherService>("VXLauncher")->reset();
}

TEST_F(DeviceCommands, StreamsOfTheMemoryAndTheLog)
{
    // Raised again and again from when the console follows it: the
    // subscription reaches the robot a little after the console says so.
    QTimer pings;
    QObject::connect(&pings, &QTimer::timeout,
                     [] { robot().scenario().raiseMicroEvent("Console/Ping", wz::AnyValue(7)); });
    const auto raise = [&pings] { pings.start(50); };
    check({
        {Words {"watch", "MorvaneReady", "--gather", "100", "--for", "0.6"}, Situation::Success,
         ExitOk, "MorvaneReady  true"},
        {Words {"watch", "MorvaneReady", "--gather", "100", "--for", "0.6", "--json"},
         Situation::Success, ExitOk, "json:value"},
        {Words {"watch", "MorvaneReady"}, Situation::Lost, ExitNoConnection, lostText(),
         "Gathering every"},
        {Words {"watch", "MorvaneReady"}, Situation::Interrupted, ExitInterrupted, "Interrupted",
         "Gathering every"},
        {Words {"watch", ""}, Situation::BadArgument, ExitUsage, "cannot be empty"},
        {Words {"watch", "MorvaneReady", "--for", "soon"}, Situation::BadArgument, ExitUsage,
         "--for wants a duration"},

        {Words {"events", "Console/Ping"}, Situation::Lost, ExitNoConnection, lostText(),
         "Following"},
        {Words {"events", "Console/Ping"}, Situation::Interrupted, ExitInterrupted, "Interrupted",
         "Following"},
        {Words {"events"}, Situation::BadArgument, ExitUsage, "at least one event name"},

        {Words {"logs", "--for", "300ms"}, Situation::Success, ExitOk, "message(s)."},
        {Words {"logs"}, Situation::Lost, ExitNoConnection, lostText(), "Following the robot"},
        {Words {"logs"}, Situation::Omitted, ExitCommandFailed, omittedText("LogManager", "logs"),
         "LogManager"},
        {Words {"logs", "--level", "9"}, Situation::BadArgument, ExitUsage, "--level wants"},
    });

    // An event raised while the console follows it comes out as a line, or
    // as one JSON object.
    for (const bool json : {false, true}) {
        SCOPED_TRACE(json ? "json" : "text");
        Words words {"events", "Console/Ping", "--for", "1"};
        if (json)
            words << "--json";
        const test::Result result = test::runLine(
            robot(), words, [](const QString &o) { return o.contains("Following"); }, raise);
        pings.stop();
        EXPECT_EQ(result.status, ExitOk) << result.all().toStdString();
        if (json) {
            const QJsonObject line = test::firstJson(result.out);
            EXPECT_EQ(line.value("event").toString(), "Console/Ping") << result.out.toStdString();
            EXPECT_EQ(line.value("value").toString(), "7");
        } else {
            EXPECT_TRUE(result.out.contains(QRegularExpression("Console/Ping  7\n")))
                << result.out.toStdString();
        }
    }
}

} // namespace
