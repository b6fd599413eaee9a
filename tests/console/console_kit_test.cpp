// The command kit, the command line as a whole, and a console that shares
// the robot with another desktop.

#include "console_rows.h"

#include <QBuffer>

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
