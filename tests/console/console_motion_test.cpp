// The motion commands (pose, move, stiff, wake, rest, posture, record,
// camera) in every situation that applies to them.

#include "console_rows.h"

namespace {

using namespace test::rows;

class MotionCommands : public test::ConsoleRows
{
};

TEST_F(MotionCommands, PoseAndMoves)
{
    check({
        {Words {"pose", "--for", "0.4"}, Situation::Success, ExitOk, "NeckYaw"},
        {Words {"pose", "--for", "0.4", "--json"}, Situation::Success, ExitOk, "json:joints"},
        // Lost while polling: said at once, and no stale table.
        {Words {"pose", "--for", "30"}, Situation::Lost, ExitNoConnection, lostText(),
         " connected in "},
        {Words {"pose"}, Situation::Omitted, ExitCommandFailed, omittedText("VXMotion", "pose"),
         "VXMotion"},
        {Words {"pose", "--for", "-1"}, Situation::BadArgument, ExitUsage, "--for wants"},

        {Words {"move", "NeckYaw=0.3", "--wait"}, Situation::Success, ExitOk, "Moved NeckYaw."},
        {Words {"move", "NeckYaw=0.1"}, Situation::Success, ExitOk, "(posted)"},
        {Words {"move", "NeckYaw=0.2", "--wait"},
         Situation::Refused,
         ExitCommandFailed,
         "joint jammed",
         {},
         [](sim::Robot &r) {
             r.scenario().failMethod("VXMotion", "angleInterpolationWithSpeed", "joint jammed");
         }},
        // The robot answers but the joint stays where it was.
        {Words {"move", "NeckYaw=0.9", "--wait"},
         Situation::Refused,
         ExitCommandFailed,
         "the move ended short: NeckYaw is at",
         {},
         [](sim::Robot &r) {
             r.scenario().replaceMethod("VXMotion", "angleInterpolationWithSpeed",
                                        [](const sim::Args &) { return wz::AnyValue(); });
         }},
        {Words {"move", "Tail=0.2"}, Situation::Refused, ExitCommandFailed,
         "no joint or chain Tail"},
        {Words {"move", "NeckYaw=0.2"}, Situation::Omitted, ExitCommandFailed,
         omittedText("VXMotion", "move"), "VXMotion"},
        {Words {"move", "NeckYaw=nan", "--wait"}, Situation::BadArgument, ExitUsage,
         "finite angle"},
        {Words {"move", "--speed", "2", "NeckYaw=0"}, Situation::BadArgument, ExitUsage,
         "--speed wants"},

        {Words {"stiff", "NeckYaw", "on"}, Situation::Success, ExitOk, "Stiffness of NeckYaw on."},
        {Words {"stiff", "NeckYaw", "on"}, Situation::Omitted, ExitCommandFailed,
         omittedText("VXMotion", "stiff"), "VXMotion"},
        {Words {"stiff", "NeckYaw", "maybe"}, Situation::BadArgument, ExitUsage,
         "stiff takes NAME on|off"},
    });
}

TEST_F(MotionCommands, WakeRestAndPostures)
{
    check({
        {Words {"wake"}, Situation::Success, ExitOk, "Awake: yes"},
        {Words {"rest"}, Situation::Success, ExitOk, "Awake: no"},
        {Words {"wake"}, Situation::Omitted, ExitCommandFailed, omittedText("VXMotion", "wake"),
         "VXMotion"},
        {Words {"rest", "now"}, Situation::BadArgument, ExitUsage, "rest does not take"},

        {Words {"posture"}, Situation::Success, ExitOk, "Family: "},
        {Words {"posture", "--json"}, Situation::Success, ExitOk, "json:family"},
        {Words {"posture", "Stand"}, Situation::Success, ExitOk, "Stand reached; family now"},
        {Words {"posture", "Flying"}, Situation::Refused, ExitCommandFailed, "error: "},
        {Words {"posture"}, Situation::Omitted, ExitCommandFailed,
         omittedText("VXRobotPosture", "posture"), "VXRobotPosture"},
        {Words {"posture", "Stand", "Sit"}, Situation::BadArgument, ExitUsage, "one posture name"},
    });
}

TEST_F(MotionCommands, RecordAndCamera)
{
    Row byHand {Words {"record", "--joints", "NeckYaw", "--poses", "3", "--interactive"},
                Situation::Success, ExitOk, "stored NeckYaw="};
    // Two poses, then the user stops.
    byHand.input = "\n\nq\n";
    check({
        {Words {"record", "--joints", "NeckYaw", "--poses", "3"}, Situation::Success, ExitOk,
         "Recording: "},
        byHand,
        {Words {"record", "--joints", "NeckYaw", "--poses", "2", "--interactive"},
         Situation::Refused, ExitCommandFailed, "no pose was recorded"},
        {Words {"record", "--joints", "NeckYaw", "--poses", "50"}, Situation::Lost,
         ExitNoConnection, lostText(), "step 1"},
        {Words {"record", "--joints", "NeckYaw"}, Situation::Omitted, ExitCommandFailed,
         omittedText("VXMotionRecorder", "record"), "VXMotionRecorder"},
        {Words {"record", "--poses", "3"}, Situation::BadArgument, ExitUsage, "needs --joints"},

        {Words {"camera", "--res", "0", "--for", "0.5"}, Situation::Success, ExitOk,
         "Camera 160x120: "},
        {Words {"camera", "--res", "0", "--for", "0.5", "--json"}, Situation::Success, ExitOk,
         "json:fps"},
        {Words {"camera", "--for", "30"}, Situation::Lost, ExitNoConnection, lostText(),
         " connected in "},
        {Words {"camera"}, Situation::Omitted, ExitCommandFailed,
         omittedText("VXVideoDevice", "camera"), "VXVideoDevice"},
        {Words {"camera", "--res", "9"}, Situation::BadArgument, ExitUsage,
         "--res wants a whole number from 0 to 3"},
    });
}

// What the hand recording prints is what the robot's joints said.
TEST_F(MotionCommands, RecordingByHandReadsTheJoints)
{
    const test::Result moved = test::runLine(robot(), {"move", "NeckYaw=0.5", "--wait"});
    ASSERT_EQ(moved.status, ExitOk) << moved.all().toStdString();
    const test::Result recorded = test::runLine(
        robot(), {"record", "--joints", "NeckYaw", "--poses", "1", "--interactive"}, {}, {}, "\n");
    EXPECT_EQ(recorded.status, ExitOk) << recorded.all().toStdString();
    EXPECT_TRUE(recorded.out.contains("stored NeckYaw=0.5")) << recorded.out.toStdString();
}

} // namespace
