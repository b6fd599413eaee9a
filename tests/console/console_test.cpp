// The console against the simulated robot, as a user runs it.

#include "commands.h"
#include "console.h"

#include <QRegularExpression>
#include <QString>
#include <QTextStream>

#include <gtest/gtest.h>

#include "shared_robot.h"

#include <memory>

namespace console {
int debugCommand(Console &console, const QStringList &arguments);
}

namespace {

struct Desktop
{
    explicit Desktop(const sim::Robot &robot, const QString &name) : out(&outText), err(&errText)
    {
        console::Options options;
        options.embedded = false;
        options.host = QString::fromStdString(robot.url().host());
        options.port = robot.url().port();
        options.name = name;
        console = std::make_unique<console::Console>(options, out, err);
    }
    QString output()
    {
        out.flush();
        return outText;
    }
    QString errors()
    {
        err.flush();
        return errText;
    }

    QString outText;
    QString errText;
    QTextStream out;
    QTextStream err;
    std::unique_ptr<console::Console> console;
};

// One robot for the suite; each case brings its own desktops.
class ConsoleTest : public test::SharedRobotTest
{
protected:
    // A desktop connected to the robot, or a failed assertion.
    static void connectDesktop(std::unique_ptr<Desktop> &desktop, const QString &name)
    {
        desktop = std::make_unique<Desktop>(robot(), name);
        ASSERT_TRUE(desktop->console->start());
        ASSERT_TRUE(desktop->console->connectToRobot()) << desktop->errors().toStdString();
    }
};

// One desktop holds a robot at a time. A second one is refused with the
// library's own texts, and the console says in plain words why; the first
// is unharmed, and once it has gone the second gets in.
TEST_F(ConsoleTest, ASecondDesktopIsToldAnotherIsConnected)
{
    std::unique_ptr<Desktop> held;
    connectDesktop(held, QStringLiteral("first desktop"));
    Desktop &first = *held;

    Desktop second(robot(), QStringLiteral("second desktop"));
    ASSERT_TRUE(second.console->start());
    EXPECT_FALSE(second.console->connectToRobot());
    const QString told = second.errors();
    EXPECT_TRUE(told.contains(QStringLiteral("Cannot connect to Morvane"))) << told.toStdString();
    EXPECT_TRUE(told.contains(QStringLiteral("service \"VXSartel\" is already registered")))
        << told.toStdString();
    EXPECT_TRUE(
        told.contains(QStringLiteral("another desktop application is connected to this robot")))
        << told.toStdString();

    EXPECT_TRUE(first.console->manager().isConnected());
    first.console->disconnectFromRobot();
    EXPECT_TRUE(first.errors().isEmpty()) << first.errors().toStdString();

    std::unique_ptr<Desktop> third;
    connectDesktop(third, QStringLiteral("third desktop"));
    EXPECT_FALSE(third->errors().contains(QStringLiteral("another desktop")));
    third->console->disconnectFromRobot();
}

// Without --io the debugger follows what the loaded behaviour declared:
// its outputs as they fire (a bang without a value) and its timeline's
// frames.
TEST_F(ConsoleTest, DebugFollowsWhatTheBehaviourDeclared)
{
    std::unique_ptr<Desktop> held;
    connectDesktop(held, QStringLiteral("debugging desktop"));
    Desktop &desktop = *held;
    EXPECT_EQ(console::debugCommand(
                  *desktop.console,
                  {QStringLiteral("wave"), QStringLiteral("--for"), QStringLiteral("5")}),
              console::ExitOk)
        << desktop.errors().toStdString();
    const QString out = desktop.output();
    EXPECT_TRUE(out.contains(QStringLiteral("Say__said = \"hello\"\n"))) << out.toStdString();
    EXPECT_TRUE(out.contains(QStringLiteral("Say__onStopped\n"))) << out.toStdString();
    EXPECT_TRUE(out.contains(QStringLiteral("following Arms__done, Arms__onStart, Say__onStart, "
                                            "Say__onStopped, Say__said and Timeline")))
        << out.toStdString();
    // How far it got depends on the polling; that it got anywhere does not.
    const QRegularExpressionMatch last
        = QRegularExpression(QStringLiteral("done, last frame (\\d+)")).match(out);
    ASSERT_TRUE(last.hasMatch()) << out.toStdString();
    EXPECT_GT(last.captured(1).toInt(), 0);
    desktop.console->disconnectFromRobot();
}

// Joint commands are posted and their failures only logged, so the console
// asks the robot about the names first and says which ones it lacks.
TEST_F(ConsoleTest, UnknownJointsAreNamedBeforeAnythingIsSent)
{
    std::unique_ptr<Desktop> held;
    connectDesktop(held, QStringLiteral("moving desktop"));
    Desktop &desktop = *held;
    EXPECT_TRUE(desktop.console->checkJoints({QStringLiteral("NeckYaw"), QStringLiteral("LArm")}));
    EXPECT_TRUE(desktop.errors().isEmpty()) << desktop.errors().toStdString();
    EXPECT_FALSE(desktop.console->checkJoints(
        {QStringLiteral("NeckYaw"), QStringLiteral("HeadYaw"), QStringLiteral("Tail")}));
    const QString told = desktop.errors();
    EXPECT_TRUE(
        told.contains(QStringLiteral("no joint or chain HeadYaw, Tail; its joints: NeckYaw")))
        << told.toStdString();
    desktop.console->disconnectFromRobot();
}

} // namespace
