// The behaviour commands (behaviors, run, stop) in every situation that
// applies to them.

#include "console_rows.h"

namespace {

using namespace test::rows;

class BehaviorCommands : public test::ConsoleRows
{
};

TEST_F(BehaviorCommands, ListRunAndStop)
{
    const auto refuse = [](sim::Robot &r) {
        r.scenario().failMethod("VXBehaviorManager", "startBehavior", "not now");
    };
    check({
        {Words {"behaviors"}, Situation::Success, ExitOk, "User/wave"},
        {Words {"behaviors", "--json"}, Situation::Success, ExitOk, "json:installed"},
        {Words {"behaviors"}, Situation::Omitted, ExitCommandFailed,
         omittedText("VXBehaviorManager", "behaviors"), "VXBehaviorManager"},
        {Words {"behaviors", "all"}, Situation::BadArgument, ExitUsage, "behaviors does not take"},

        {Words {"run", "wave"}, Situation::Success, ExitOk, "done (Stopped)"},
        {Words {"run", "idle", "--for", "0.5"}, Situation::Success, ExitOk, "done (Stopped)"},
        // Refused: never "done" with success, never a wait for ever.
        {Words {"run", "wave"},
         Situation::Refused,
         ExitCommandFailed,
         "did not start wave",
         {},
         refuse},
        {Words {"run", "nothere"}, Situation::Refused, ExitCommandFailed,
         "the robot has no behaviour \"nothere\""},
        {Words {"run", "idle"}, Situation::Interrupted, ExitInterrupted, "done (Stopped)",
         "Running"},
        // The robot goes on with it: the stop below ends it.
        {Words {"run", "idle"}, Situation::Lost, ExitNoConnection, lostText(), "Running"},
        {Words {"run", "wave"}, Situation::Omitted, ExitCommandFailed,
         omittedText("VXBehaviorManager", "run"), "VXBehaviorManager"},
        {Words {"run"}, Situation::BadArgument, ExitUsage, "run wants one behaviour name"},
        {Words {"run", "wave", "--for", "0"}, Situation::BadArgument, ExitUsage, "--for wants"},

        {Words {"stop", "--all"}, Situation::Success, ExitOk, "Running now: none"},
        {Words {"stop", "idle"}, Situation::Refused, ExitCommandFailed, "idle is not running"},
        {Words {"stop", "idle"}, Situation::Omitted, ExitCommandFailed,
         omittedText("VXBehaviorManager", "stop"), "VXBehaviorManager"},
        {Words {"stop"}, Situation::BadArgument, ExitUsage, "a behaviour name or --all"},
    });
}

} // namespace
