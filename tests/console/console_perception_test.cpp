// The perception commands (world, object, people, zones) in every situation
// that applies to them.

#include "console_rows.h"

namespace {

using namespace test::rows;

class PerceptionCommands : public test::ConsoleRows
{
};

TEST_F(PerceptionCommands, WorldAndObjects)
{
    // A short period: the first list waits for the first poll.
    check({
        {Words {"world", "--period", "50", "--for", "0.3"}, Situation::Success, ExitOk,
         "Cup          object"},
        {Words {"world", "--period", "50", "--for", "0.3", "--json"}, Situation::Success, ExitOk,
         "json:objects"},
        {Words {"world", "--period", "50"}, Situation::Lost, ExitNoConnection, lostText(),
         "Changes"},
        {Words {"world", "--period", "50"}, Situation::Interrupted, ExitInterrupted, "Changes",
         "Changes"},
        {Words {"world"}, Situation::Omitted, ExitCommandFailed,
         omittedText("VXWorldRepresentation", "world"), "VXWorldRepresentation"},
        {Words {"world", "--period", "0"}, Situation::BadArgument, ExitUsage, "--period wants"},

        {Words {"object", "Cup"}, Situation::Success, ExitOk, "Relative   in Table: "},
        {Words {"object", "Cup", "--json"}, Situation::Success, ExitOk, "json:absolute"},
        {Words {"object", "Unicorn"}, Situation::Refused, ExitCommandFailed,
         "unknown object \"Unicorn\""},
        {Words {"object", "Cup"}, Situation::Omitted, ExitCommandFailed,
         omittedText("VXWorldRepresentation", "object"), "VXWorldRepresentation"},
        {Words {"object"}, Situation::BadArgument, ExitUsage, "one object name"},
    });
}

TEST_F(PerceptionCommands, PeopleAndZones)
{
    check({
        {Words {"people", "--for", "0.3"}, Situation::Success, ExitOk, "Detection range "},
        {Words {"people", "--for", "0.3", "--json"}, Situation::Success, ExitOk, "json:range"},
        {Words {"people"}, Situation::Lost, ExitNoConnection, lostText(), "Present: "},
        {Words {"people"}, Situation::Omitted, ExitCommandFailed,
         omittedText("VXPeoplePerception", "people"), "VXPeoplePerception"},
        {Words {"people", "--every", "3"}, Situation::BadArgument, ExitUsage,
         "people has no option --every"},

        {Words {"zones"}, Situation::Success, ExitOk, "First limit   "},
        {Words {"zones", "--json"}, Situation::Success, ExitOk, "json:secondLimit"},
        {Words {"zones", "--for", "30"}, Situation::Lost, ExitNoConnection, lostText(), "Tracking"},
        {Words {"zones"}, Situation::Omitted, ExitCommandFailed,
         omittedText("VXEngagementZones", "zones"), "VXEngagementZones"},
        {Words {"zones", "--for"}, Situation::BadArgument, ExitUsage, "--for needs a value"},
    });
}

} // namespace
