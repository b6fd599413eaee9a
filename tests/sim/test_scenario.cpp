// The scenario file format and the memory model, without a network.
#include <sim/device_services.h>
#include <sim/memory_service.h>
#include <sim/robot.h>

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <fstream>

using wz::AnyValue;

namespace {

// A robot of its own services only, so that these tests do not follow the catalogue.
sim::RobotOptions smallRobot()
{
    sim::RobotOptions o;
    o.services = {
        {"VXMemory", [] { return std::make_unique<sim::MemoryService>(); }},
        {"VXBattery", [] { return std::make_unique<sim::BatteryService>(); }},
        {"VXEmpty", [] { return std::make_unique<sim::PlaceholderService>("VXEmpty"); }},
    };
    return o;
}

std::string errorOf(const std::function<void()> &f)
{
    try {
        f();
    } catch (const std::exception &e) {
        return e.what();
    }
    return "";
}

} // namespace

TEST(ScenarioJson, ValuesKeepTheirShape)
{
    EXPECT_EQ(sim::anyFromJson("3").kind(), AnyValue::Kind::Int);
    EXPECT_EQ(sim::anyFromJson("-3000000000").toInt(), -3000000000LL);
    EXPECT_EQ(sim::anyFromJson("2.5").kind(), AnyValue::Kind::Float);
    EXPECT_EQ(sim::anyFromJson("{\"$float\": 1}").kind(), AnyValue::Kind::Float);
    EXPECT_EQ(sim::anyFromJson("{\"$binary\": \"AAEC\"}").toBinary(),
              wz::Buffer(std::string("\0\1\2", 3)));
    EXPECT_FALSE(sim::anyFromJson("null").isValid());
    const AnyValue nested = sim::anyFromJson("{\"a\": [true, \"x\", [1]], \"b\": {}}");
    ASSERT_EQ(nested.kind(), AnyValue::Kind::Map);
    EXPECT_EQ(nested.find("a")->toList().at(1).toStr(), "x");
    EXPECT_EQ(nested.find("a")->toList().at(2).toList().at(0).toInt(), 1);
    EXPECT_NE(errorOf([] { sim::anyFromJson("[1,"); }).find("not valid JSON"), std::string::npos);
    EXPECT_NE(errorOf([] { sim::anyFromJson("{\"$float\": \"x\"}"); }).find("$float"),
              std::string::npos);
}

TEST(ScenarioFile, AppliesEveryKindOfEntry)
{
    sim::Robot robot(smallRobot());
    robot.scenario().applyJson(R"({
        "version": "2.2.0.1",
        "readiness": {"hold": true},
        "keys": {"Battery/Level": 42, "Robot/Name": "nao-sim", "Pose": [0.5, 1]},
        "methods": {"VXBattery.getBatteryCharge": {"fail": "board not answering", "delayMs": 20}},
        "services": {"VXBattery": {"charge": 12}}
    })");
    EXPECT_EQ(robot.memory().version(), "2.2.0.1");
    EXPECT_EQ(robot.memory().getData("Battery/Level").toInt(), 42);
    EXPECT_EQ(robot.memory().getType("Robot/Name"), "String");
    EXPECT_EQ(robot.memory().getType("Pose"), "Array");
    EXPECT_EQ(robot.serviceAs<sim::BatteryService>("VXBattery")->charge(), 12);
    const auto rule = robot.scenario().ruleFor("VXBattery", "getBatteryCharge");
    ASSERT_TRUE(rule);
    EXPECT_EQ(rule->failText.value_or(""), "board not answering");
    EXPECT_EQ(rule->delay.count(), 20);
    EXPECT_FALSE(rule->removed);
}

TEST(ScenarioFile, RejectsMistakesAndChangesNothing)
{
    sim::Robot robot(smallRobot());
    struct Case
    {
        const char *json;
        const char *reason;
    };
    const Case cases[] = {
        {R"({"keys": {"a": 1}, "methods": {"VXBattery.nope": {"fail": "x"}}})",
         "has no method \"nope\""},
        {R"({"keys": {"a": 1}, "methods": {"NoSuch.getX": {"fail": "x"}}})",
         "no service \"NoSuch\""},
        {R"({"keys": {"a": 1}, "methods": {"getBatteryCharge": {}}})", "Service.method"},
        {R"({"keys": {"a": 1}, "methods": {"VXBattery.getBatteryCharge": {"delayMs": -5}}})",
         "milliseconds"},
        {R"({"keys": {"a": 1}, "methods": {"VXBattery.getBatteryCharge": {"fial": "x"}}})",
         "unknown entry \"fial\""},
        {R"({"keys": {"a": 1}, "omitServices": ["VXNothing"]})", "VXNothing"},
        {R"({"keys": {"a": 1}, "readiness": {"hold": "yes"}})", "readiness.hold"},
        {R"({"keys": {"a": 1}, "events": [{"value": 1}]})", "events[0].name"},
        {R"({"keys": {"a": 1}, "colour": "red"})", "unknown entry \"colour\""},
        {R"([1, 2])", "JSON object"},
        {R"({"keys": {"a": 1},)", "offset"},
    };
    for (const Case &c : cases) {
        const std::string error = errorOf([&] { robot.scenario().applyJson(c.json); });
        EXPECT_NE(error.find(c.reason), std::string::npos) << c.json << " gave: " << error;
    }
    // Checked before applied: the valid "keys" entry of each bad file never landed.
    EXPECT_FALSE(robot.memory().hasKey("a"));
    EXPECT_FALSE(robot.scenario().ruleFor("VXBattery", "getBatteryCharge"));
}

TEST(ScenarioFile, ServiceSettingsAreChecked)
{
    sim::Robot robot(smallRobot());
    EXPECT_NE(errorOf([&] {
                  robot.scenario().applyJson(R"({"services": {"VXBattery": {"charge": 300}}})");
              }).find("0 to 100"),
              std::string::npos);
    EXPECT_NE(errorOf([&] {
                  robot.scenario().applyJson(R"({"services": {"VXEmpty": {"x": 1}}})");
              }).find("takes no settings"),
              std::string::npos);
    EXPECT_EQ(robot.serviceAs<sim::BatteryService>("VXBattery")->charge(), 87);
}

TEST(ScenarioFile, LoadsFromDiskAndNamesTheFileInErrors)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const std::string good = dir.filePath("good.json").toStdString();
    const std::string bad = dir.filePath("bad.json").toStdString();
    std::ofstream(good) << R"({"keys": {"From/File": true}})";
    std::ofstream(bad) << R"({"keys": )";
    sim::Robot robot(smallRobot());
    robot.scenario().loadFile(good);
    EXPECT_TRUE(robot.memory().getData("From/File").toBool());
    EXPECT_NE(errorOf([&] { robot.scenario().loadFile(bad); }).find(bad), std::string::npos);
    const std::string missing = dir.filePath("missing.json").toStdString();
    EXPECT_NE(errorOf([&] { robot.scenario().loadFile(missing); }).find("cannot read"),
              std::string::npos);
}

TEST(ScenarioControl, RulesNeedARealServiceAndMethod)
{
    sim::Robot robot(smallRobot());
    sim::Scenario &s = robot.scenario();
    EXPECT_THROW(s.failMethod("VXMemory", "getDta", "x"), std::invalid_argument);
    EXPECT_THROW(s.omitService("VXMemmory"), std::invalid_argument);
    s.addMethod("VXEmpty", "getAngles", 1, [](const sim::Args &) { return AnyValue(1.5); });
    EXPECT_TRUE(robot.offersMethod("VXEmpty", "getAngles"));
    s.failMethod("VXEmpty", "getAngles", "motors off");
    s.restoreMethod("VXEmpty", "getAngles");
    EXPECT_FALSE(robot.offersMethod("VXEmpty", "getAngles"));
    EXPECT_FALSE(s.ruleFor("VXEmpty", "getAngles"));
}

TEST(CallLog, KeepsTheLatestCallsAndCountsThemAll)
{
    sim::Robot robot(smallRobot());
    sim::Scenario &s = robot.scenario();
    for (int i = 0; i < static_cast<int>(sim::Scenario::kCallLogDepth) + 5; ++i)
        s.recordCall("VXMemory", "getData", {AnyValue(i)});
    const auto calls = s.calls("VXMemory", "getData");
    ASSERT_EQ(calls.size(), sim::Scenario::kCallLogDepth);
    EXPECT_EQ(calls.front().at(0).toInt(), 5);
    EXPECT_EQ(s.callCount("VXMemory", "getData"), sim::Scenario::kCallLogDepth + 5);
    EXPECT_TRUE(s.waitForCalls("VXMemory", "getData", 3, std::chrono::milliseconds(0)));
    s.clearCalls();
    EXPECT_EQ(s.callCount("VXMemory", "getData"), 0u);
    EXPECT_TRUE(s.calls("VXMemory", "getData").empty());
}

TEST(MemoryModel, KeysEventsAndLists)
{
    sim::MemoryService memory;
    memory.insertData("Device/Temp", 41.5);
    memory.insertData("Device/Name", std::string("head"));
    memory.raiseEvent("FrontTactilTouched", 1);
    memory.raiseMicroEvent("SartelConnectionTest", 0);

    EXPECT_EQ(memory.getType("Device/Temp"), "Float");
    EXPECT_EQ(memory.getDataList("Device/"),
              (std::vector<std::string> {"Device/Name", "Device/Temp"}));
    EXPECT_EQ(memory.getDataList("").size(), 4u);
    EXPECT_EQ(memory.getEventList(), std::vector<std::string> {"FrontTactilTouched"});
    EXPECT_EQ(memory.getMicroEventList(), std::vector<std::string> {"SartelConnectionTest"});

    EXPECT_EQ(errorOf([&] { memory.getData("Nope"); }), "key \"Nope\" not found");
    EXPECT_EQ(errorOf([&] { memory.getType("Nope"); }), "key \"Nope\" not found");
    EXPECT_EQ(errorOf([&] { memory.removeData("Nope"); }), "key \"Nope\" not found");
    EXPECT_EQ(errorOf([&] { memory.removeMicroEvent("Nope"); }), "micro event \"Nope\" not found");
    EXPECT_NE(
        errorOf([&] { memory.unsubscribe("FrontTactilTouched", "Mod"); }).find("not subscribed"),
        std::string::npos);

    // Removing a key announces it on "VXMemory/KeyRemoved", which becomes a micro event.
    memory.removeData("Device/Temp");
    EXPECT_FALSE(memory.hasKey("Device/Temp"));
    EXPECT_EQ(memory.getData(sim::MemoryService::kKeyRemoved).toStr(), "Device/Temp");
    memory.removeMicroEvent("SartelConnectionTest");
    EXPECT_EQ(memory.getData(sim::MemoryService::kKeyRemoved).toStr(), "SartelConnectionTest");
    EXPECT_EQ(memory.getMicroEventList(),
              std::vector<std::string> {sim::MemoryService::kKeyRemoved});
}
