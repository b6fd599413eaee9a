#include <wz/package_info.h>

#include <wz/log.h>

#include <gtest/gtest.h>

using VX::VXValue;
using wz::AnyValue;
using wz::PackageInfo;
using wz::PackageInfo2;

namespace {

PackageInfo2 sampleRecord()
{
    PackageInfo2 p;
    p.uuid = "dance-42";
    p.version = "1.2.0";
    p.author = "Ada";
    p.channel = "stable";
    p.organization = "Lab";
    p.date = "2024-05-01";
    p.typeVersion = "0.1";
    p.installer = "desktop";
    p.path = "/home/robot/.local/share/packages/dance-42";
    wz::RobotRequirement req;
    req.model = "pelvon";
    req.minBodyVersion = "1.0";
    wz::PackageService service;
    service.name = "dance-service";
    service.execStart = "./run";
    service.autoRun = true;
    p.elems["name"] = AnyValue("Dance");
    p.elems["robotRequirements"] = wz::toAny(std::vector<wz::RobotRequirement> {req});
    p.elems["morvaneRequirements"]
        = wz::toAny(std::vector<wz::MorvaneRequirement> {{"2.1", "2.9"}});
    p.elems["services"] = wz::toAny(std::vector<wz::PackageService> {service});
    p.elems["webInfo"] = wz::toAny(wz::WebInfo {"html/index.html"});
    p.elems["icon"] = AnyValue(wz::Buffer(std::string("\x89PNG", 4)));
    return p;
}

VXValue pair(const char *name, VXValue value)
{
    return VXValue(std::vector<VXValue> {VXValue(name), std::move(value)});
}

} // namespace

TEST(PackageInfo, ReadsWhatThePackageManagerSends)
{
    // The service answers with the record; the desktop reads it as a VXValue.
    const PackageInfo2 record = sampleRecord();
    const VXValue value = wz::fromAny<VXValue>(wz::toAny(record));
    ASSERT_TRUE(value.isArray());

    const PackageInfo info(value);
    EXPECT_TRUE(info.isValid());
    EXPECT_EQ(info.uuid(), "dance-42");
    EXPECT_EQ(info.version(), "1.2.0");
    EXPECT_EQ(info.author(), "Ada");
    EXPECT_EQ(info.channel(), "stable");
    EXPECT_EQ(info.organization(), "Lab");
    EXPECT_EQ(info.date(), "2024-05-01");
    EXPECT_EQ(info.typeVersion(), "0.1");
    EXPECT_EQ(info.installer(), "desktop");
    EXPECT_EQ(info.path(), record.path);
    EXPECT_EQ(info.name(), "Dance");

    // Nested records arrive as [name, value] pairs and still read.
    ASSERT_EQ(info.robotRequirements().size(), 1u);
    EXPECT_EQ(info.robotRequirements()[0].model, "pelvon");
    EXPECT_EQ(info.robotRequirements()[0].minBodyVersion, "1.0");
    EXPECT_EQ(info.morvaneRequirements(), (std::vector<wz::MorvaneRequirement> {{"2.1", "2.9"}}));
    ASSERT_EQ(info.services().size(), 1u);
    EXPECT_TRUE(info.services()[0].autoRun);
    EXPECT_EQ(info.services()[0].execStart, "./run");
    EXPECT_EQ(info.webInfo().path, "html/index.html");
    ASSERT_NE(info.elem("icon"), nullptr);
    EXPECT_EQ(info.elem("icon")->toBinary().str(), std::string("\x89PNG", 4));

    // The value shape is stable: back and forth gives the same package.
    EXPECT_EQ(PackageInfo(info.toValue()), info);
    EXPECT_EQ(PackageInfo(info.toValue()).toValue(), info.toValue());

    // Copyable and assignable, as a queued signal needs.
    PackageInfo copy = info;
    PackageInfo assigned;
    assigned = copy;
    EXPECT_EQ(assigned.uuid(), "dance-42");
    EXPECT_FALSE(PackageInfo().isValid());
}

TEST(PackageInfo, BadValuesGiveAnEmptyOrPartialRecordAndALogLine)
{
    {
        wz::log::LogCapture capture;
        EXPECT_FALSE(PackageInfo(VXValue()).isValid());
        EXPECT_TRUE(capture.records().empty()); // no value is no package, silently
    }
    {
        wz::log::LogCapture capture;
        EXPECT_FALSE(PackageInfo(VXValue(12)).isValid());
        EXPECT_TRUE(capture.contains(wz::LogLevel_Warning, "wz.package", "Int"));
    }
    {
        wz::log::LogCapture capture;
        const VXValue v(std::vector<VXValue> {pair("uuid", "ok-1"), VXValue("loose string")});
        EXPECT_FALSE(PackageInfo(v).isValid());
        EXPECT_TRUE(capture.contains("wz.package", "element 1 is not a [name, value] pair"));
    }
    {
        // A field of the wrong type is dropped; the rest stays.
        wz::log::LogCapture capture;
        const VXValue v(std::vector<VXValue> {pair("uuid", "ok-2"), pair("version", 3),
                                              pair("elems", VXValue(5)), pair("extra", 1.5f)});
        const PackageInfo info(v);
        EXPECT_EQ(info.uuid(), "ok-2");
        EXPECT_EQ(info.version(), "");
        ASSERT_NE(info.elem("extra"), nullptr); // unknown fields are kept as elements
        EXPECT_EQ(info.elem("extra")->toDouble(), 1.5);
        EXPECT_TRUE(capture.contains("wz.package", "field \"version\" must be a String"));
        EXPECT_TRUE(capture.contains("wz.package", "elems"));
    }
    // A well-formed package with a malformed element reads; the element's
    // reader says what is wrong.
    const PackageInfo odd(std::vector<VXValue> {
        pair("uuid", "ok-3"),
        pair("elems", VXValue(std::vector<VXValue> {pair("services", VXValue(7))}))});
    EXPECT_TRUE(odd.isValid());
    EXPECT_THROW(odd.services(), wz::TypeError);
}

TEST(PackageInfo, RecordsConvertStrictlyByFieldName)
{
    const wz::PackageService s {"./go", "svc", true};
    EXPECT_EQ(wz::fromAny<wz::PackageService>(wz::toAny(s)), s);
    const wz::RobotRequirement r {"m", "1", "2", "3", "4"};
    EXPECT_EQ(wz::fromAny<wz::RobotRequirement>(wz::toAny(r)), r);
    EXPECT_EQ(wz::fromAny<PackageInfo2>(wz::toAny(sampleRecord())), sampleRecord());
    EXPECT_EQ(wz::fromAny<PackageInfo>(wz::toAny(PackageInfo(sampleRecord()))).uuid(), "dance-42");

    // Missing fields keep defaults; unknown fields are ignored.
    const auto partial = wz::fromAny<wz::PackageService>(
        AnyValue(AnyValue::Map {{"name", AnyValue("only")}, {"future", AnyValue(1)}}));
    EXPECT_EQ(partial.name, "only");
    EXPECT_FALSE(partial.autoRun);

    try {
        wz::fromAny<wz::PackageService>(AnyValue(AnyValue::Map {{"autoRun", AnyValue("yes")}}));
        FAIL() << "no TypeError";
    } catch (const wz::TypeError &e) {
        EXPECT_NE(std::string(e.what()).find("field \"autoRun\" must be a Bool"), std::string::npos)
            << e.what();
    }
    EXPECT_THROW(wz::fromAny<wz::WebInfo>(AnyValue(3)), wz::TypeError);
    EXPECT_THROW(wz::fromAny<PackageInfo2>(AnyValue(AnyValue::List {AnyValue(1)})), wz::TypeError);
}
