// The command kit, the command line as a whole, and a console that shares
// the robot with another desktop.

#include "console_rows.h"

#include <QJsonArray>

namespace {

using console::ExitOk;
using console::ExitUsage;

TEST(Durations, WholeAndFractionalSecondsMillisecondsAndMinutes)
{
    const std::vector<std::pair<const char *, int>> good {
        {"5", 5000},   {"2.5", 2500}, {"2.5s", 2500}, {"300ms", 300},
        {"1m", 60000}, {".5", 500},   {" 7 ", 7000},  {"86400", 86400000}};
    for (const auto &[text, ms] : good) {
        int value = -1;
        EXPECT_TRUE(console::parseDuration(QString::fromUtf8(text), value)) << text;
        EXPECT_EQ(value, ms) << text;
    }
    for (const char *text : {"", "0", "0.0001", "-1", "1h", "abc", "5 s", "86401", "1e3", "nan"}) {
        int value = -1;
        EXPECT_FALSE(console::parseDuration(QString::fromUtf8(text), value)) << text;
        EXPECT_EQ(value, -1) << text;
    }
}

// Off a terminal a transfer's progress is a line per step of the way and
// per change of what it does, whatever the number of updates.
TEST(Progress, ALogGetsAFewWholeLinesATerminalOneRedrawnLine)
{
    QString logged;
    {
        QTextStream out(&logged);
        console::Progress progress(out, false, 25);
        progress.show("Sending", QString(), -1);
        for (int i = 0; i <= 1000; ++i)
            progress.show("Sending", QStringLiteral("%1 files").arg(i), i / 10.0);
        progress.show("Extracting", QString(), 100);
    }
    const QStringList lines = logged.split('\n', Qt::SkipEmptyParts);
    EXPECT_EQ(lines.size(), 7)
        << logged.toStdString(); // no percent, 0, 25, 50, 75, 100, a new step
    EXPECT_EQ(lines.at(1), "Sending  0 files  0%");
    EXPECT_EQ(lines.at(5), "Sending  1000 files  100%");
    EXPECT_FALSE(logged.contains('\r'));

    QString drawn;
    {
        QTextStream out(&drawn);
        console::Progress progress(out, true);
        progress.show("Sending", "1 / 2 MB", 50);
        progress.show("Sending", "2 / 2 MB", 100);
    }
    EXPECT_EQ(drawn.count('\r'), 4); // two redraws, then the line wiped and the cursor back
    EXPECT_FALSE(drawn.contains('\n'));
}

// Every command finds a wrong argument before it connects (nothing reaches
// the robot, so none is needed), and --json only where there is data.
TEST(CommandLine, EveryUsageErrorComesBeforeConnecting)
{
    console::Options options;
    options.embedded = false;
    options.host = QStringLiteral("127.0.0.1");
    options.port = 1; // nothing listens: connecting would fail with exit 3
    for (const console::Command &command : console::commands()) {
        SCOPED_TRACE(command.name);
        QString outText, errText;
        QTextStream out(&outText), err(&errText);
        console::Console console(options, out, err);
        const int status = console::runCommand(console, QString::fromLatin1(command.name),
                                               {QStringLiteral("--no-such-option")});
        out.flush();
        err.flush();
        EXPECT_EQ(status, ExitUsage) << (outText + errText).toStdString();
        EXPECT_TRUE(errText.contains(QLatin1String("error: "))) << errText.toStdString();
        EXPECT_FALSE(outText.contains(QLatin1String("Connecting"))) << outText.toStdString();
        EXPECT_FALSE(console.connected());
    }
    for (const char *name : {"say", "move", "push", "nosuchcommand"}) {
        QString outText, errText;
        QTextStream out(&outText), err(&errText);
        console::Console console(options, out, err);
        EXPECT_EQ(console::runCommand(console, QString::fromLatin1(name),
                                      {QStringLiteral("--json"), QStringLiteral("x")}),
                  ExitUsage)
            << name;
    }
}

// No robot at the address: exit 3, said once.
TEST(CommandLine, NoRobotIsExitThree)
{
    console::Options options;
    options.embedded = false;
    options.host = QStringLiteral("127.0.0.1");
    options.port = 1;
    QString outText, errText;
    QTextStream out(&outText), err(&errText);
    console::Console console(options, out, err);
    EXPECT_EQ(console::runCommand(console, QStringLiteral("battery"), {}),
              console::ExitNoConnection);
    err.flush();
    EXPECT_TRUE(errText.startsWith(QLatin1String("error: "))) << errText.toStdString();
}

class SharedRobot : public test::ConsoleRows
{
};

// One desktop holds a robot at a time. A second one is refused with the
// library's own texts, and the console says in plain words why; the first
// is unharmed, and once it has gone the second gets in.
TEST_F(SharedRobot, ASecondDesktopIsToldAnotherIsConnected)
{
    QString firstOut, firstErr;
    QTextStream out(&firstOut), err(&firstErr);
    console::Console first(test::rowOptions(robot()), out, err);
    ASSERT_TRUE(first.ensureConnected()) << firstErr.toStdString();

    const test::Result second = test::runLine(robot(), {"battery"});
    EXPECT_EQ(second.status, console::ExitNoConnection);
    EXPECT_TRUE(second.err.contains("Cannot connect to Morvane")) << second.err.toStdString();
    EXPECT_TRUE(second.err.contains("service \"VXSartel\" is already registered"));
    EXPECT_TRUE(second.err.contains("another desktop application is connected to this robot"));

    EXPECT_TRUE(first.manager().isConnected());
    first.disconnectFromRobot();
    err.flush();
    EXPECT_TRUE(firstErr.isEmpty()) << firstErr.toStdString();

    const test::Result third = test::runLine(robot(), {"battery"});
    EXPECT_EQ(third.status, ExitOk) << third.all().toStdString();
}

} // namespace

namespace {

// Runs an Arguments reader over `words` and gives its status and message.
struct Parsed
{
    int status = -1;
    QString error;
};

template<typename Read>
Parsed parse(const QStringList &words, Read read)
{
    console::Options options;
    QString outText, errText;
    QTextStream out(&outText), err(&errText);
    console::Console console(options, out, err);
    console::Arguments args(console, "camera", words);
    read(args);
    Parsed parsed;
    parsed.status = args.finish();
    err.flush();
    parsed.error = errText;
    return parsed;
}

// Options are taken wherever they stand; what nobody took, a value that is
// missing or out of range, is one message naming it, and the usage.
TEST(Arguments, TakesOptionsAnywhereAndNamesWhatItDoesNotTake)
{
    int res = -1, forMs = -1;
    QStringList words;
    Parsed p = parse({"a", "--res", "2", "b", "--for", "1.5s"}, [&](console::Arguments &a) {
        a.number("res", res, 0, 3);
        a.duration("for", forMs);
        words = a.positional();
    });
    EXPECT_EQ(p.status, ExitOk) << p.error.toStdString();
    EXPECT_EQ(res, 2);
    EXPECT_EQ(forMs, 1500);
    EXPECT_EQ(words, QStringList({"a", "b"}));

    const std::vector<std::pair<QStringList, const char *>> bad {
        {{"--res"}, "--res needs a value"},
        {{"--res", "4"}, "--res wants a whole number from 0 to 3, not \"4\""},
        {{"--res", "two"}, "not \"two\""},
        {{"--for", "0"}, "--for wants a duration"},
        {{"--res", "1", "--colour", "red"}, "camera has no option --colour"},
        {{"stray"}, "camera does not take \"stray\""},
    };
    for (const auto &[input, message] : bad) {
        SCOPED_TRACE(input.join(' ').toStdString());
        p = parse(input, [](console::Arguments &a) {
            int n = 0;
            a.number("res", n, 0, 3);
            a.duration("for", n);
        });
        EXPECT_EQ(p.status, ExitUsage);
        EXPECT_TRUE(p.error.contains(QLatin1String(message))) << p.error.toStdString();
        EXPECT_TRUE(p.error.contains(QLatin1String("usage: camera "))) << p.error.toStdString();
        EXPECT_EQ(p.error.count(QLatin1String("error: ")), 1) << p.error.toStdString();
    }
}

TEST(Waiter, ThePlatformsTextsOfALossAreToldApart)
{
    EXPECT_TRUE(console::Waiter::tellsOfLoss(
        "VXLauncher._launchWait: connection lost: disconnected: connection reset by peer"));
    EXPECT_TRUE(
        console::Waiter::tellsOfLoss("disconnected: no heartbeat from the peer for 8000 ms"));
    EXPECT_FALSE(console::Waiter::tellsOfLoss("command not found: disconnected"));
    EXPECT_FALSE(console::Waiter::tellsOfLoss(QString()));
}

class ScriptOutput : public test::ConsoleRows
{
};

// What a script reads: every line of a stream is a JSON object of its own,
// and the documents carry the robot's values, not placeholders.
TEST_F(ScriptOutput, StreamsAreOneObjectALineDocumentsCarryTheRobotsValues)
{
    const std::vector<QStringList> streams {
        {"watch", "MorvaneReady", "--gather", "100", "--for", "0.5", "--json"},
        {"debug", "wave", "--for", "5", "--json"},
        {"world", "--period", "50", "--for", "0.2", "--json"},
        {"people", "--for", "0.2", "--json"},
    };
    for (const QStringList &words : streams) {
        SCOPED_TRACE(words.join(' ').toStdString());
        const test::Result result = test::runLine(robot(), words);
        EXPECT_EQ(result.status, ExitOk) << result.all().toStdString();
        const QStringList lines = result.out.split('\n', Qt::SkipEmptyParts);
        EXPECT_FALSE(lines.isEmpty());
        for (const QString &line : lines) {
            QJsonParseError error {};
            const QJsonDocument document = QJsonDocument::fromJson(line.toUtf8(), &error);
            EXPECT_TRUE(document.isObject()) << line.toStdString();
        }
    }

    test::Result result = test::runLine(robot(), {"status", "--json"});
    EXPECT_EQ(test::firstJson(result.out).value("twoWayTest").toString(), "passed")
        << result.out.toStdString();
    EXPECT_TRUE(test::firstJson(result.out).value("missing").toArray().isEmpty());

    robot().scenario().omitService("VXBattery");
    result = test::runLine(robot(), {"status", "--json"});
    robot().scenario().restoreService("VXBattery");
    EXPECT_EQ(test::firstJson(result.out).value("missing").toArray(), QJsonArray({"VXBattery"}))
        << result.out.toStdString();

    result = test::runLine(robot(), {"audio", "35", "--json"});
    EXPECT_EQ(test::firstJson(result.out).value("volume").toInt(), 35) << result.out.toStdString();
    result = test::runLine(robot(), {"object", "Cup", "--json"});
    EXPECT_EQ(test::firstJson(result.out).value("relative").toObject().value("in").toString(),
              "Table")
        << result.out.toStdString();
}

// Standard input that ends before the poses asked for: what was stored is
// kept, and the command says how many it got.
TEST_F(ScriptOutput, RecordingByHandEndsWithItsInput)
{
    const test::Result result = test::runLine(
        robot(), {"record", "--joints", "NeckYaw", "--poses", "5", "--interactive"}, {}, {}, "\n");
    EXPECT_EQ(result.status, ExitOk) << result.all().toStdString();
    EXPECT_EQ(result.out.count("stored NeckYaw="), 1) << result.out.toStdString();
    EXPECT_TRUE(result.out.contains("pose 2/5")) << result.out.toStdString();
}

} // namespace
