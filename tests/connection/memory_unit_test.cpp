// The history format of the robot's memory watcher, without a robot.

#include "memory_executer_p.h"
#include <connection/platform.h>

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace {

using VX::VXValue;

VXValue array(std::vector<VXValue> items)
{
    return VXValue(std::move(items));
}

// [[seconds, microseconds], value]
VXValue sample(int seconds, int microseconds, VXValue value)
{
    return array({array({seconds, microseconds}), std::move(value)});
}

std::string failureOf(const VXValue &data)
{
    try {
        RK::MemoryExecuter::parseHistory(data);
    } catch (const std::runtime_error &e) {
        return e.what();
    }
    return "accepted";
}

TEST(MemoryHistoryFormat, EachRuleHasItsOwnText)
{
    const VXValue good = array({VXValue("k"), array({sample(1, 0, 5)})});
    struct Case
    {
        VXValue data;
        const char *text;
    };
    const std::vector<Case> cases {
        {VXValue(), "Invalid data retrieved."},
        {VXValue(3), "Data was not an array."},
        {VXValue("[]"), "Data was not an array."},
        {array({VXValue(1)}), "Data entry not an array of size 2."},
        {array({array({VXValue("k")})}), "Data entry not an array of size 2."},
        {array({array({VXValue("k"), array({}), VXValue(1)})}),
         "Data entry not an array of size 2."},
        {array({array({VXValue(1), array({})})}),
         "Data entry first element not a key name string."},
        {array({array({VXValue("k"), VXValue("h")})}),
         "Data entry second element not a history array."},
        {array({array({VXValue("k"), array({VXValue(1)})})}),
         "History entry not an array of size 2."},
        {array({array({VXValue("k"), array({array({array({1, 2})})})})}),
         "History entry not an array of size 2."},
        {array({array({VXValue("k"), array({array({VXValue(1), VXValue(2)})})})}),
         "History entry first element not an array of size 2."},
        {array({array({VXValue("k"), array({array({array({1, 2, 3}), VXValue(2)})})})}),
         "History entry first element not an array of size 2."},
        // Depth first: the broken second entry is found after the first is read.
        {array({good, array({VXValue("k2")})}), "Data entry not an array of size 2."},
        {array({array({VXValue("k"), array({sample(1, 0, 1), VXValue(0)})})}),
         "History entry not an array of size 2."},
    };
    for (size_t i = 0; i < cases.size(); ++i)
        EXPECT_EQ(failureOf(cases[i].data), cases[i].text) << "case " << i;

    // The stamp's integers are converted, not tested: a text there fails the
    // conversion itself.
    EXPECT_ANY_THROW(RK::MemoryExecuter::parseHistory(
        array({array({VXValue("k"), array({sample(0, 0, 1), array({array({"s", 1}), 1})})})})));
}

TEST(MemoryHistoryFormat, WellFormedHistoriesBecomeTheBatch)
{
    EXPECT_TRUE(RK::MemoryExecuter::parseHistory(array({})).isEmpty());

    const RK::MemoryExecuter::Batch batch = RK::MemoryExecuter::parseHistory(array({
        array(
            {VXValue("Temp/\xc3\xa9t\xc3\xa9"),
             array({sample(10, 250000, 1.5f), sample(9, 999999, true), sample(10, 250000, 2.5f)})}),
        array({VXValue("Other"), array({sample(-1, 0, VXValue())})}),
        array({VXValue("Twice"), array({sample(1, 0, 1)})}),
        array({VXValue("Twice"), array({sample(2, 0, array({1, "a"}))})}),
        array({VXValue("Empty"), array({})}),
    }));
    ASSERT_EQ(batch.size(), 4);
    // A key given twice keeps its later history; nested values become text.
    EXPECT_EQ(batch.value(QStringLiteral("Twice")),
              (QMap<double, QVariant> {{2.0, QVariant(QStringLiteral("[1, \"a\"]"))}}));
    EXPECT_TRUE(batch.contains(QStringLiteral("Empty")));
    EXPECT_TRUE(batch.value(QStringLiteral("Empty")).isEmpty());
    const QMap<double, QVariant> temp = batch.value(QStringLiteral("Temp/\u00e9t\u00e9"));
    const double early = 9 + 999999 / 1e6;
    EXPECT_EQ(temp.keys(), (QList<double> {early, 10.25}));
    EXPECT_EQ(temp.value(early), QVariant(true));
    EXPECT_EQ(temp.value(10.25), QVariant(2.5f)); // the later of two equal stamps
    EXPECT_EQ(batch.value(QStringLiteral("Other")).value(-1.0),
              QVariant(QStringLiteral("<invalid>")));
}

} // namespace
