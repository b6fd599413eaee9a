// The simulated behaviour manager and autonomous life, through a client session.
#include "call_error.h"
#include "shared_robot.h"
#include "sim_test_support.h"

#include <sim/behavior_manager_service.h>
#include <sim/memory_service.h>
#include <sim/robot.h>

#include <gtest/gtest.h>

using namespace simtest;
using test::callError;
using wz::AnyValue;

namespace {

const char *const kShort = "nature interactive\n"
                           "length 0.3\n"
                           "box Say in onStart out said\n"
                           "timeline Main fps 50 frames 10\n"
                           "output 0.05 Say said hi there\n"
                           "answer Say onStart said\n";

TEST(BehaviorScript, ParsesTheGrammarAndNamesTheBadLine)
{
    const sim::BehaviorScript s = sim::BehaviorScript::parse(
        "# comment\n\nname User/x\nnature solitary\nlength forever\n"
        "box A disabled in go out done\nbox B in x y out z\ntimeline T fps 10 frames 20\n"
        "output 0.5 B z some value\nanswer B x z\nfail 1 A broke down\n"
        "preload-error A: missing sound\ntag t1\n");
    EXPECT_EQ(s.name, "User/x");
    EXPECT_EQ(s.nature, "solitary");
    EXPECT_TRUE(s.runsUntilStopped());
    ASSERT_EQ(s.boxes.size(), 2u);
    EXPECT_TRUE(s.boxes[0].disabled);
    EXPECT_EQ(s.boxes[1].inputs, (std::vector<std::string> {"x", "y"}));
    EXPECT_EQ(s.outputs.at(0).value, "some value");
    EXPECT_EQ(s.failures.at(0).text, "broke down");
    EXPECT_EQ(s.preloadError, "A: missing sound");
    EXPECT_EQ(s.frames, 20);

    const std::pair<const char *, const char *> bad[] = {
        {"length 1\nbogus 3\n", "line 2: unknown word"},
        {"output 0.1 Nobox out\n", "line 1: no box \"Nobox\""},
        {"box A out x\noutput 0.1 A y\n", "line 2: box \"A\" has no output \"y\""},
        {"length -3\n", "line 1: \"-3\" is not a time"},
        {"timeline T fps 0 frames 3\n", "line 1: \"0\" is not a whole number"},
        {"box A in a.b\n", "line 1: input or output \"a.b\""},
        {"box A\nbox A\n", "line 2: box \"A\" declared twice"},
    };
    for (const auto &b : bad) {
        try {
            sim::BehaviorScript::parse(b.first);
            ADD_FAILURE() << b.first << " parsed";
        } catch (const std::runtime_error &e) {
            EXPECT_EQ(std::string(e.what()).find(b.second), 0u) << e.what();
        }
    }
    EXPECT_THROW(sim::BehaviorScript::parse(std::string(70000, '#')), std::runtime_error);
}

class SimBehaviors : public test::SharedRobotTest
{
protected:
    void SetUp() override
    {
        manager()->reset();
        client = connectTo(robot());
        memory = client->service("VXMemory").value(10000);
        behaviors = client->service("VXBehaviorManager").value(10000);
        inbox = std::make_shared<Inbox>();
        // A name of its own: the robot drops the last test's subscriptions
        // only once it notices that client gone, and until then it would
        // deliver them to a module of the same name.
        static int tests = 0;
        module = "TestModule" + std::to_string(++tests);
        client->registerService(module, makeModule(inbox)).value(10000);
    }
    void TearDown() override
    {
        client->close().wait(10000);
        robot().scenario().reset();
        manager()->reset();
    }
    static sim::BehaviorManagerService *manager()
    {
        return robot().serviceAs<sim::BehaviorManagerService>("VXBehaviorManager");
    }
    void subscribe(const std::string &name)
    {
        memory.call<void>("subscribeToMicroEvent", name, module, "", "onEvent");
    }
    // The values the inbox received for `name`, in order.
    std::vector<AnyValue> valuesOf(const std::string &name) const
    {
        std::vector<AnyValue> out;
        for (const sim::Args &a : inbox->got()) {
            if (a.at(0) == AnyValue(name))
                out.push_back(a.at(1));
        }
        return out;
    }

    boost::shared_ptr<wz::Session> client;
    wz::Object memory;
    wz::Object behaviors;
    std::shared_ptr<Inbox> inbox;
    std::string module;
};

TEST_F(SimBehaviors, ListsAndNamesFollowTheUserPrefix)
{
    using Names = std::vector<std::string>;
    EXPECT_EQ(behaviors.call<Names>("getInstalledBehaviors"), (Names {"User/idle", "User/wave"}));
    EXPECT_TRUE(behaviors.call<bool>("isBehaviorInstalled", "wave"));
    EXPECT_FALSE(behaviors.call<bool>("isBehaviorInstalled", "User/nothing"));
    EXPECT_EQ(behaviors.call<std::string>("getBehaviorNature", "wave"), "interactive");
    EXPECT_EQ(behaviors.call<std::string>("getBehaviorNature", "User/idle"), "");
    EXPECT_EQ(callError(behaviors, "startBehavior", {AnyValue("nothing")}),
              "behavior \"User/nothing\" is not installed");
    behaviors.call<void>("addDefaultBehavior", "wave");
    EXPECT_EQ(behaviors.call<Names>("getDefaultBehaviors"), (Names {"User/wave"}));
    EXPECT_EQ(callError(behaviors, "_removeBoxLibrary", {AnyValue("Nope")}),
              "box library \"Nope\" is not installed");

    subscribe(sim::BehaviorManagerService::kAddedEvent);
    subscribe(sim::BehaviorManagerService::kRemovedEvent);
    manager()->install("short", kShort);
    behaviors.call<void>("removeBehavior", "User/short");
    ASSERT_TRUE(inbox->waitFor(2));
    EXPECT_EQ(valuesOf(sim::BehaviorManagerService::kAddedEvent),
              (std::vector<AnyValue> {AnyValue("User/short")}));
    EXPECT_EQ(valuesOf(sim::BehaviorManagerService::kRemovedEvent),
              (std::vector<AnyValue> {AnyValue("User/short")}));
}

TEST_F(SimBehaviors, ALoadedBehaviourIsObservableAndItsEndUndoesIt)
{
    manager()->install("short", kShort);
    behaviors.call<bool>("preloadBehavior", "short");
    const std::string id = behaviors.call<std::string>("_getBehaviorFrameManagerId", "short");
    ASSERT_EQ(id.rfind("behavior_", 0), 0u);
    EXPECT_EQ(id.find_first_of(".*+?()[]{}|^$\\"), std::string::npos);
    EXPECT_EQ(memory.call<AnyValue>("getData", id + "Main"), AnyValue(0));
    EXPECT_TRUE(listed(*client, id + "Say"));

    // Box calls: an input raises itself and its answer; a parameter is kept.
    subscribe(id + "Say__onStart");
    subscribe(id + "Say__said");
    subscribe(sim::BehaviorManagerService::kRunEvent);
    wz::Object box = client->service(id + "Say").value(10000);
    EXPECT_TRUE(box.call<bool>("_isEnabled"));
    box.call<void>("onInput_onStart", 7);
    box.call<void>("setParameter", "volume", 0.5);
    EXPECT_EQ(box.call<AnyValue>("getParameter", "volume"), AnyValue(0.5));
    ASSERT_TRUE(inbox->waitFor(2));
    EXPECT_EQ(valuesOf(id + "Say__said"), (std::vector<AnyValue> {AnyValue(7)}));

    // Running: the run list, the scripted output, then the end by itself.
    behaviors.call<void>("startBehavior", "short");
    EXPECT_EQ(callError(behaviors, "startBehavior", {AnyValue("short")}),
              "behavior \"User/short\" is already running");
    ASSERT_TRUE(test::waitUntil([&] { return valuesOf("BehaviorsRun").size() >= 2; }));
    const auto runs = valuesOf("BehaviorsRun");
    EXPECT_EQ(runs[0], wz::toAny(std::vector<std::string> {"User/short"}));
    EXPECT_EQ(runs[1], wz::toAny(std::vector<std::string> {}));
    EXPECT_EQ(valuesOf(id + "Say__said").back(), AnyValue("hi there"));
    EXPECT_FALSE(listed(*client, id + "Say"));
    EXPECT_FALSE(robot().memory().hasKey(id + "Main"));
    EXPECT_EQ(behaviors.call<std::string>("_getBehaviorFrameManagerId", "short"), "");
    // Loaded again, it gets the same id back.
    behaviors.call<bool>("preloadBehavior", "short");
    EXPECT_EQ(behaviors.call<std::string>("_getBehaviorFrameManagerId", "short"), id);
}

TEST_F(SimBehaviors, FailuresAndPreloadErrorsCarryTheBoxAndText)
{
    manager()->install("broken", "box Say in x\npreload-error Say: no such sound\n");
    const std::string err = callError(behaviors, "preloadBehavior", {AnyValue("broken")});
    EXPECT_NE(err.find("\nSay: no such sound\n"), std::string::npos) << err;

    manager()->install("failing", "length forever\nbox Arm in x\nfail 0.05 Arm motor too hot\n");
    subscribe(sim::BehaviorManagerService::kFailedEvent);
    subscribe(sim::BehaviorManagerService::kRunEvent);
    behaviors.call<void>("startBehavior", "failing");
    ASSERT_TRUE(test::waitUntil([&] { return valuesOf("BehaviorsRun").size() >= 2; }));
    EXPECT_EQ(valuesOf(sim::BehaviorManagerService::kFailedEvent).at(0),
              wz::toAny(std::vector<std::string> {"User/failing", "Arm", "motor too hot"}));
}

TEST_F(SimBehaviors, LifeStatesAndFocus)
{
    wz::Object life = client->service("VXAutonomousLife").value(10000);
    subscribe(sim::AutonomousLifeService::kStateEvent);
    EXPECT_EQ(life.call<std::string>("getState"), "disabled");
    EXPECT_NE(callError(life, "setState", {AnyValue("sleepy")}).find("not a life state"),
              std::string::npos);
    life.call<void>("setState", "solitary");
    life.call<void>("setState", "solitary");
    life.call<void>("setState", "disabled");
    ASSERT_TRUE(inbox->waitFor(2));
    EXPECT_EQ(valuesOf("AutonomousLife/State"),
              (std::vector<AnyValue> {AnyValue("solitary"), AnyValue("disabled")}));

    life.call<void>("switchFocus", "idle");
    EXPECT_TRUE(behaviors.call<bool>("isBehaviorRunning", "User/idle"));
    EXPECT_NE(callError(life, "switchFocus", {AnyValue("User/none")}).find("not installed"),
              std::string::npos);
    behaviors.call<void>("stopBehavior", "idle");
    EXPECT_FALSE(behaviors.call<bool>("isBehaviorRunning", "User/idle"));
}

} // namespace
