// The debugger and autonomous life (debug, life) in every situation that
// applies to them.

#include "console_rows.h"

#include <QRegularExpression>

namespace {

using namespace test::rows;

class DebugCommands : public test::ConsoleRows
{
};

TEST_F(DebugCommands, DebugAndLife)
{
    check({
        {Words {"debug", "wave", "--for", "5"}, Situation::Success, ExitOk, "Say__onStopped\n"},
        {Words {"debug", "wave", "--for", "5", "--json"}, Situation::Success, ExitOk, "json:event"},
        {Words {"debug", "idle"}, Situation::Lost, ExitNoConnection, lostText(), "running"},
        {Words {"debug", "wave"}, Situation::Omitted, ExitCommandFailed,
         omittedText("VXFrameManager", "debug"), "VXFrameManager"},
        {Words {"debug", "--io"}, Situation::BadArgument, ExitUsage, "--io needs a value"},

        {Words {"life"}, Situation::Success, ExitOk, "Life state: "},
        {Words {"life"}, Situation::Omitted, ExitCommandFailed,
         omittedText("VXAutonomousLife", "life"), "VXAutonomousLife"},
        {Words {"life", "dreaming"}, Situation::BadArgument, ExitUsage, "a life state is"},
    });
}

// Without --io the debugger follows what the loaded behaviour declared:
// its outputs as they fire (a bang without a value) and its timeline's
// frames.
TEST_F(DebugCommands, DebugFollowsWhatTheBehaviourDeclared)
{
    const test::Result result = test::runLine(robot(), {"debug", "wave", "--for", "5"});
    EXPECT_EQ(result.status, ExitOk) << result.all().toStdString();
    const QString &out = result.out;
    EXPECT_TRUE(out.contains("Say__said = \"hello\"\n")) << out.toStdString();
    EXPECT_TRUE(out.contains("following Arms__done, Arms__onStart, Say__onStart, "
                             "Say__onStopped, Say__said and Timeline"))
        << out.toStdString();
    // How far it got depends on the polling; that it got anywhere does not.
    const QRegularExpressionMatch last
        = QRegularExpression(QStringLiteral("done, last frame (\\d+)")).match(out);
    ASSERT_TRUE(last.hasMatch()) << out.toStdString();
    EXPECT_GT(last.captured(1).toInt(), 0);
}

// A load the robot gives no id for ends the command at once, and says why.
TEST_F(DebugCommands, ALoadWithoutAnIdFailsWithTheRobotsText)
{
    robot().scenario().failMethod("VXBehaviorManager", "_getBehaviorFrameManagerId",
                                  "frame manager busy");
    const test::Result result = test::runLine(robot(), {"debug", "wave"});
    robot().scenario().restoreMethod("VXBehaviorManager", "_getBehaviorFrameManagerId");
    EXPECT_EQ(result.status, ExitCommandFailed) << result.all().toStdString();
    // Told by the failed call itself or by the load it ends, whichever is first.
    EXPECT_TRUE(result.err.contains("frame manager busy")) << result.all().toStdString();
    EXPECT_FALSE(result.out.contains("running")) << result.all().toStdString();

    // An empty id: no call failed, so only the load can tell.
    robot().scenario().replaceMethod("VXBehaviorManager", "_getBehaviorFrameManagerId",
                                     [](const sim::Args &) { return wz::AnyValue(std::string()); });
    const test::Result empty = test::runLine(robot(), {"debug", "wave"});
    robot().scenario().restoreMethod("VXBehaviorManager", "_getBehaviorFrameManagerId");
    EXPECT_EQ(empty.status, ExitCommandFailed) << empty.all().toStdString();
    EXPECT_TRUE(empty.err.contains("error: the robot did not load wave: The robot gave no "
                                   "frame-manager id for wave"))
        << empty.all().toStdString();
}

} // namespace
