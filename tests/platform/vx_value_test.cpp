#include <vx/vxvalue.h>

#include <wz/object_builder.h>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

using VX::VXError;
using VX::VXValue;

namespace {

// Runs `f`, expecting a VXError whose text contains `fragment`.
template<typename F>
void expectError(F f, const std::string &fragment)
{
    try {
        f();
        ADD_FAILURE() << "no VXError; expected one mentioning \"" << fragment << "\"";
    } catch (const VXError &e) {
        EXPECT_NE(std::string(e.what()).find(fragment), std::string::npos)
            << "error text \"" << e.what() << "\" lacks \"" << fragment << "\"";
    }
}

VXValue array(std::vector<VXValue> v)
{
    return VXValue(std::move(v));
}

} // namespace

TEST(VXValue, ConstructionGivesTheMatchingType)
{
    EXPECT_EQ(VXValue().getType(), VXValue::TypeInvalid);
    EXPECT_EQ(VXValue(true).getType(), VXValue::TypeBool);
    EXPECT_EQ(VXValue(7).getType(), VXValue::TypeInt);
    EXPECT_EQ(VXValue(7L).getType(), VXValue::TypeInt);
    EXPECT_EQ(VXValue(static_cast<unsigned char>(7)).getType(), VXValue::TypeInt);
    EXPECT_EQ(VXValue(1.5f).getType(), VXValue::TypeFloat);
    EXPECT_EQ(VXValue(1.5).getType(), VXValue::TypeFloat);
    EXPECT_EQ(VXValue("text").getType(), VXValue::TypeString);
    EXPECT_EQ(VXValue(std::string("text")).getType(), VXValue::TypeString);
    EXPECT_EQ(VXValue(wz::Buffer(std::string("ab"))).getType(), VXValue::TypeBinary);
    EXPECT_EQ(VXValue(static_cast<const void *>("ab"), 2).getType(), VXValue::TypeBinary);
    EXPECT_EQ(VXValue(std::vector<unsigned char> {1, 2}).getType(), VXValue::TypeBinary);

    const VXValue strings(std::vector<std::string> {"a", "b"});
    ASSERT_TRUE(strings.isArray());
    EXPECT_EQ(strings.getSize(), 2);
    EXPECT_EQ(strings[1].toStdString(), "b");
    EXPECT_EQ(VXValue(std::vector<bool> {true, false})[1].getType(), VXValue::TypeBool);
    EXPECT_EQ(VXValue(std::vector<int> {1, 2, 3})[2].toInt(), 3);
    EXPECT_EQ(VXValue(std::vector<double> {0.25})[0].getType(), VXValue::TypeFloat);

    // Integers that do not fit the value's int are refused, not wrapped.
    expectError([] { VXValue v(static_cast<long long>(1) << 40); }, "does not fit");
    expectError([] { VXValue v(std::numeric_limits<unsigned>::max()); }, "4294967295");
    EXPECT_EQ(VXValue(static_cast<long long>(std::numeric_limits<int>::min())).toInt(),
              std::numeric_limits<int>::min());
}

TEST(VXValue, ReadersAcceptOnlyTheConversionsTheyDocument)
{
    EXPECT_TRUE(VXValue(true).toBool());
    EXPECT_TRUE(VXValue(2).toBool());
    EXPECT_FALSE(VXValue(0).toBool());
    EXPECT_EQ(VXValue(true).toInt(), 1);
    EXPECT_EQ(VXValue(2.9f).toInt(), 2);
    EXPECT_EQ(VXValue(-2.9f).toInt(), -2);
    EXPECT_FLOAT_EQ(VXValue(3).toFloat(), 3.0f);
    EXPECT_EQ(VXValue("héllo").toStdString(), "héllo");

    int i = VXValue(5);
    float f = VXValue(0.5f);
    bool b = VXValue(true);
    std::string s = VXValue("x");
    EXPECT_EQ(i, 5);
    EXPECT_FLOAT_EQ(f, 0.5f);
    EXPECT_TRUE(b);
    EXPECT_EQ(s, "x");

    expectError([] { (void)VXValue("1").toInt(); }, "type string as int");
    expectError([] { (void)VXValue(1.0f).toBool(); }, "type float as bool");
    expectError([] { (void)VXValue(true).toFloat(); }, "type bool as float");
    expectError([] { (void)VXValue(1).toStdString(); }, "type int as string");
    expectError([] { (void)VXValue().toInt(); }, "type invalid as int");
    expectError([] { (void)VXValue(std::vector<int> {1}).toInt(); }, "type array as int");
    expectError([] { (void)VXValue(3e9f).toInt(); }, "does not fit in an int");
    expectError([] { (void)VXValue(std::nanf("")).toInt(); }, "nan");
    expectError([] { (void)VXValue(1).GetBinary(); }, "as binary");
    expectError([] { (void)VXValue("x").toBinary(); }, "as binary");
}

TEST(VXValue, ArrayAccessAndEdits)
{
    VXValue v;
    v.arrayPush(1);
    v.arrayPush("two");
    v.arrayPush(std::vector<float> {3.0f});
    ASSERT_EQ(v.getSize(), 3);
    EXPECT_EQ(v[1].toStdString(), "two");
    EXPECT_FLOAT_EQ(v[2][0].toFloat(), 3.0f);

    v[0] = VXValue(10);
    EXPECT_EQ(v[0].toInt(), 10);

    const VXValue &cv = v;
    expectError([&] { (void)cv[3]; }, "index 3 out of range (size 3)");
    expectError([&] { (void)v[-1]; }, "index -1 out of range");
    expectError([] { (void)VXValue(4)[0]; }, "type int as an array");

    v.arrayPopFront();
    ASSERT_EQ(v.getSize(), 2);
    EXPECT_EQ(v[0].toStdString(), "two");
    v.arrayPopFront();
    v.arrayPopFront();
    EXPECT_TRUE(v.isArray());
    expectError([&] { v.arrayPopFront(); }, "empty array");
    expectError([] { VXValue(1).arrayPopFront(); }, "type int");
    expectError([] { VXValue("s").arrayPush(1); }, "type string");

    VXValue sized;
    sized.arraySetSize(2);
    EXPECT_EQ(sized.getSize(), 2);
    EXPECT_FALSE(sized[1].isValid());
    sized.clear();
    EXPECT_FALSE(sized.isValid());
    EXPECT_EQ(sized.getSize(), 0);
}

TEST(VXValue, TypedArraysReportTheFirstBadElement)
{
    const VXValue numbers = array({1, 2.9f, -3});
    EXPECT_EQ(numbers.ToFloatArray(), (std::vector<float> {1.0f, 2.9f, -3.0f}));
    EXPECT_EQ(numbers.ToIntArray(), (std::vector<int> {1, 2, -3}));
    std::vector<float> floats = numbers;
    EXPECT_EQ(floats.size(), 3u);

    const VXValue names = array({"HeadYaw", "HeadPitch"});
    std::vector<std::string> out {"stale"};
    names.ToStringArray(out);
    EXPECT_EQ(out, (std::vector<std::string> {"HeadYaw", "HeadPitch"}));
    std::vector<std::string> converted = names;
    EXPECT_EQ(converted, out);

    EXPECT_TRUE(VXValue(std::vector<VXValue> {}).ToStringArray().empty());

    std::vector<std::string> untouched {"kept"};
    expectError([&] { array({"a", 2, "c"}).ToStringArray(untouched); }, "element 1");
    EXPECT_EQ(untouched, std::vector<std::string> {"kept"}); // no half-filled output
    expectError([] { (void)array({1.0f, "x"}).ToFloatArray(); }, "element 1 of the array");
    expectError([] { (void)VXValue("a").ToStringArray(); }, "as an array of string");
    expectError([] { (void)VXValue().ToFloatArray(); }, "type invalid");
}

TEST(VXValue, ToStringIsStableAndReadable)
{
    struct Case
    {
        VXValue value;
        std::string plain;
        std::string typed;
    };
    const std::vector<Case> cases = {
        {VXValue(), "<invalid>", "<invalid>"},
        {VXValue(true), "true", "bool true"},
        {VXValue(-12), "-12", "int -12"},
        {VXValue(2.0f), "2.0", "float 2.0"},
        {VXValue(0.1f), "0.1", "float 0.1"},
        {VXValue(1e20f), "1e+20", "float 1e+20"},
        {VXValue("say \"hi\"\n"), "\"say \\\"hi\\\"\\n\"", "string \"say \\\"hi\\\"\\n\""},
        {VXValue("\x01"), "\"\\x01\"", "string \"\\x01\""},
        {VXValue("été"), "\"été\"", "string \"été\""},
        {VXValue(static_cast<const void *>("\x0a\xff"), 2), "<binary 2 bytes>",
         "<binary 2 bytes: 0aff>"},
        {array({1, array({"a", 2.5f}), array({})}), "[1, [\"a\", 2.5], []]",
         "[int 1, [string \"a\", float 2.5], []]"},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(c.value.toString(1), c.plain);
        EXPECT_EQ(c.value.toString(0), c.plain);
        EXPECT_EQ(c.value.toString(2), c.typed);
    }
    const std::string big(40, 'x');
    EXPECT_EQ(VXValue(static_cast<const void *>(big.data()), big.size()).toString(2),
              "<binary 40 bytes: 78787878787878787878787878787878...>");
    EXPECT_EQ(VXValue(std::nanf("")).toString(1), "nan");
    EXPECT_EQ(VXValue(-INFINITY).toString(1), "-inf");
}

TEST(VXValue, BinarySharesItsBytes)
{
    const wz::Buffer frame(std::string(2'500'000, '\x7f'));
    const VXValue image = array({320, 240, VXValue(frame)});
    EXPECT_EQ(image[2].getSize(), 2'500'000);
    EXPECT_EQ(image[2].GetBinary(), static_cast<const void *>(frame.data()));

    const VXValue copy = image;
    EXPECT_EQ(copy[2].GetBinary(), image[2].GetBinary());

    // Through the wire representation and back: still the same bytes.
    const VXValue back = wz::fromAny<VXValue>(wz::toAny(image));
    EXPECT_EQ(back[2].GetBinary(), static_cast<const void *>(frame.data()));
    EXPECT_EQ(back, image);
}

TEST(VXValue, WireConversionKeepsTypesExactly)
{
    const VXValue original
        = array({VXValue(), true, 42, 1.25f, "s", VXValue(static_cast<const void *>("\0\1"), 2),
                 array({array({-1})})});
    const wz::AnyValue any = wz::toAny(original);
    ASSERT_EQ(any.kind(), wz::AnyValue::Kind::List);
    const wz::AnyValue::List &l = any.toList();
    EXPECT_EQ(l[0].kind(), wz::AnyValue::Kind::Invalid);
    EXPECT_EQ(l[1].kind(), wz::AnyValue::Kind::Bool);
    EXPECT_EQ(l[2].kind(), wz::AnyValue::Kind::Int);
    EXPECT_EQ(l[3].kind(), wz::AnyValue::Kind::Float);
    EXPECT_EQ(l[4].kind(), wz::AnyValue::Kind::String);
    EXPECT_EQ(l[5].kind(), wz::AnyValue::Kind::Binary);
    EXPECT_EQ(l[6].kind(), wz::AnyValue::Kind::List);
    EXPECT_EQ(wz::fromAny<VXValue>(any), original);
    EXPECT_EQ(wz::fromAny<VXValue>(any)[3].getType(), VXValue::TypeFloat);

    // Values other peers may send.
    const VXValue fromMap = wz::fromAny<VXValue>(
        wz::AnyValue(wz::AnyValue::Map {{"b", 2}, {"a", wz::AnyValue("x")}}));
    EXPECT_EQ(fromMap.toString(1), "[[\"a\", \"x\"], [\"b\", 2]]");
    EXPECT_EQ(wz::fromAny<VXValue>(wz::AnyValue(2.5)).toFloat(), 2.5f);
    EXPECT_EQ(wz::fromAny<VXValue>(wz::AnyValue(static_cast<long long>(-5))).toInt(), -5);
    EXPECT_THROW(wz::fromAny<VXValue>(wz::AnyValue(static_cast<long long>(1) << 33)),
                 wz::TypeError);
    EXPECT_THROW(wz::fromAny<VXValue>(wz::AnyValue(wz::DynamicObjectBuilder().object())),
                 wz::TypeError);
}
