#include "sartel_fixture.h"

#include <chrono>

using namespace std::chrono_literals;

namespace {

// Long enough for several of the fast ticks that poll watched keys.
const std::chrono::milliseconds k_polls(5 * RK::ConnectionTiming().fastPollMs);

class TimelineListener : public QObject
{
public:
    explicit TimelineListener(RK::SartelModuleInterface &module)
    {
        using I = RK::SartelModuleInterface;
        connect(&module, &I::currentFrameChanged, this, [this](int f) { frames.push_back(f); });
        connect(&module, &I::currentTimelineStopped, this, [this] { ++stops; });
        connect(
            &module, &I::displayErrorRequested, this,
            [this](const QString &title, const QString &contents, const QString &details, bool) {
                errors.push_back({title, contents, details});
            });
    }

    int last() const { return frames.empty() ? -2 : frames.back(); }

    std::vector<int> frames;
    int stops = 0;
    std::vector<QStringList> errors;
};

class TimelineTest : public test::SartelTest
{
protected:
    void SetUp() override
    {
        SartelTest::SetUp();
        for (const std::string &id : frames().timelines())
            frames().deleteBehavior(id);
        connect();
        listener = std::make_unique<TimelineListener>(*module);
    }
    void TearDown() override
    {
        listener.reset();
        SartelTest::TearDown();
    }

    // Creates and waits until the robot has it; returns its identifier.
    std::string create(const QString &text)
    {
        const uint64_t before = callCount("VXFrameManager", "createTimeline");
        emit module->createTimelineRequested(text);
        drain();
        EXPECT_EQ(callCount("VXFrameManager", "createTimeline"), before + 1);
        const std::vector<std::string> ids = frames().timelines();
        return ids.empty() ? std::string() : ids.back();
    }

    static uint64_t reads(const std::string &key)
    {
        uint64_t n = 0;
        for (const sim::Args &a : calls("VXMemory", "getData"))
            n += a.at(0) == wz::AnyValue(key);
        return n;
    }

    std::unique_ptr<TimelineListener> listener;
};

TEST_F(TimelineTest, PlayPauseGotoAndStop)
{
    const std::string id = create(QStringLiteral("# a short wave\nfps 50\nframes 400\n"));
    ASSERT_FALSE(id.empty());
    // Creating clears the former timeline first, even when there is none.
    ASSERT_TRUE(test::waitUntil([&] { return listener->last() == 0; }));
    EXPECT_EQ(listener->frames, (std::vector<int> {-1, 0}));
    EXPECT_FALSE(frames().isPlaying(id));

    emit module->playCurrentTimelineRequested();
    ASSERT_TRUE(test::waitUntil([&] { return listener->last() >= 10; }));
    EXPECT_TRUE(frames().isPlaying(id));
    // Frames are told once each, rising, whatever the two routes deliver.
    for (size_t i = 2; i < listener->frames.size(); ++i)
        EXPECT_GT(listener->frames[i], listener->frames[i - 1]);

    emit module->pauseCurrentTimelineRequested();
    drain();
    EXPECT_FALSE(frames().isPlaying(id));
    EXPECT_EQ(calls("VXFrameManager", "stopTimeline").back(), (sim::Args {wz::AnyValue(id)}));
    // The frame it stopped at is told, then nothing: several polls see no change.
    ASSERT_TRUE(test::waitUntil([&] { return listener->last() == frames().currentFrame(id); }));
    const size_t told = listener->frames.size();
    ASSERT_TRUE(test::barrierAfter(module->executer(), k_polls));
    EXPECT_EQ(listener->frames.size(), told);

    // The play may have shown frame 7 already: only what the gotos tell counts.
    const auto gotoFrom = static_cast<std::ptrdiff_t>(listener->frames.size());
    emit module->gotoFrameCurrentTimelineRequested(7);
    ASSERT_TRUE(test::waitUntil([&] { return listener->last() == 7; }));
    EXPECT_EQ(frames().currentFrame(id), 7);
    // Going to the frame already shown tells nothing new.
    emit module->gotoFrameCurrentTimelineRequested(7);
    drain();
    ASSERT_TRUE(test::barrierAfter(module->executer(), k_polls));
    EXPECT_EQ(std::count(listener->frames.begin() + gotoFrom, listener->frames.end(), 7), 1);

    emit module->stopCurrentTimelineRequested();
    ASSERT_TRUE(test::waitUntil([&] { return listener->last() == -1; }));
    drain();
    EXPECT_EQ(calls("VXFrameManager", "deleteBehavior"),
              (std::vector<sim::Args> {{wz::AnyValue(id)}}));
    EXPECT_TRUE(frames().timelines().empty());
    EXPECT_FALSE(robot().memory().hasKey(id));
    // The key has left the watch.
    const uint64_t readsAfter = reads(id);
    ASSERT_TRUE(test::barrierAfter(module->executer(), k_polls));
    EXPECT_EQ(reads(id), readsAfter);
    EXPECT_TRUE(listener->errors.empty());
    // Deleting is not the end of a played timeline.
    EXPECT_EQ(listener->stops, 0);
}

TEST_F(TimelineTest, TheEndOfATimelineIsTold)
{
    const std::string id
        = create(QStringLiteral("fps 100\nframes 30\nkey 0 NeckYaw 0\nkey 29 NeckYaw 1.0\n"));
    ASSERT_FALSE(id.empty());
    emit module->playCurrentTimelineRequested();
    ASSERT_TRUE(test::waitUntil([&] { return listener->stops > 0; }));
    // By both routes of the removal event.
    ASSERT_TRUE(test::waitUntil([&] { return listener->stops == 2; }));
    EXPECT_FALSE(robot().memory().hasKey(id));
    EXPECT_GT(listener->last(), 0);
    // The timeline moved the joint it has keys for.
    EXPECT_FLOAT_EQ(motion().getAngles(wz::AnyValue("NeckYaw"), false).at(0), 1.0f);

    // The end does not unload it: playing again starts over.
    emit module->playCurrentTimelineRequested();
    ASSERT_TRUE(test::waitUntil([&] { return listener->stops == 4; }));
    EXPECT_EQ(frames().timelines(), std::vector<std::string> {id});
}

// After its end the robot removes the timeline's key and the desktop stops
// reading it; going to a frame or playing again must have it read again.
class EndedTimelineTest : public TimelineTest
{
protected:
    // A long timeline, played from near its end until the robot ends it.
    std::string createEnded()
    {
        const std::string id = create(QStringLiteral("fps 100\nframes 10000\n"));
        EXPECT_FALSE(id.empty());
        playToTheEnd(id);
        return id;
    }

    void playToTheEnd(const std::string &id)
    {
        const int stops = listener->stops;
        emit module->gotoFrameCurrentTimelineRequested(9995);
        ASSERT_TRUE(test::waitUntil([&] { return listener->last() == 9995; }));
        emit module->playCurrentTimelineRequested();
        // Both routes of the removal event.
        ASSERT_TRUE(test::waitUntil([&] { return listener->stops == stops + 2; }));
        EXPECT_FALSE(robot().memory().hasKey(id));
        // Polls since the end have found no key, and the key has left the watch.
        ASSERT_TRUE(test::barrierAfter(module->executer(), k_polls));
        const uint64_t readsAfterEnd = reads(id);
        ASSERT_TRUE(test::barrierAfter(module->executer(), k_polls));
        EXPECT_EQ(reads(id), readsAfterEnd);
    }
};

TEST_F(EndedTimelineTest, PlayingAgainTellsTheFramesFromTheStart)
{
    const std::string id = createEnded();
    ASSERT_FALSE(HasFatalFailure());
    listener->frames.clear();
    emit module->playCurrentTimelineRequested();
    ASSERT_TRUE(test::waitUntil([&] { return listener->frames.size() >= 3; }));
    emit module->pauseCurrentTimelineRequested();
    // From the start again, and rising.
    EXPECT_LT(listener->frames.front(), 9995);
    for (size_t i = 1; i < listener->frames.size(); ++i)
        EXPECT_GT(listener->frames[i], listener->frames[i - 1]);
    EXPECT_TRUE(listener->errors.empty());

    // And again after a second end.
    playToTheEnd(id);
    ASSERT_FALSE(HasFatalFailure());
    listener->frames.clear();
    emit module->playCurrentTimelineRequested();
    ASSERT_TRUE(test::waitUntil([&] { return !listener->frames.empty(); }));
    emit module->pauseCurrentTimelineRequested();
    EXPECT_LT(listener->frames.front(), 9995);
}

TEST_F(EndedTimelineTest, GoingToAFrameTellsIt)
{
    createEnded();
    ASSERT_FALSE(HasFatalFailure());
    emit module->gotoFrameCurrentTimelineRequested(500);
    ASSERT_TRUE(test::waitUntil([&] { return listener->last() == 500; }));
    EXPECT_TRUE(listener->errors.empty());
}

TEST_F(TimelineTest, ASecondTimelineDeletesTheFirst)
{
    const std::string first = create(QStringLiteral("frames 100"));
    ASSERT_FALSE(first.empty());
    ASSERT_TRUE(test::waitUntil([&] { return listener->last() == 0; }));
    const std::string second = create(QStringLiteral("frames 100"));
    ASSERT_NE(second, first);
    // The new timeline's first frame is the same number as the one the old
    // one showed, and is told all the same after the -1 of the change.
    ASSERT_TRUE(test::waitUntil([&] { return listener->frames.size() >= 4; }));
    EXPECT_EQ(listener->frames, (std::vector<int> {-1, 0, -1, 0}));
    EXPECT_EQ(frames().timelines(), std::vector<std::string> {second});
    EXPECT_EQ(calls("VXFrameManager", "deleteBehavior"),
              (std::vector<sim::Args> {{wz::AnyValue(first)}}));

    // Only the new one is played.
    emit module->playCurrentTimelineRequested();
    drain();
    EXPECT_EQ(calls("VXFrameManager", "playTimeline"),
              (std::vector<sim::Args> {{wz::AnyValue(second)}}));

    // The executer's end deletes the timeline it leaves behind.
    listener.reset();
    module.reset();
    connection.reset();
    recorder->disconnectAndWait();
    EXPECT_EQ(calls("VXFrameManager", "deleteBehavior").size(), 2u);
    EXPECT_TRUE(frames().timelines().empty());
}

TEST_F(TimelineTest, CommandsWithoutATimeline)
{
    emit module->playCurrentTimelineRequested();
    emit module->pauseCurrentTimelineRequested();
    emit module->stopCurrentTimelineRequested();
    drain();
    EXPECT_EQ(callCount("VXFrameManager", "playTimeline"), 0u);
    EXPECT_EQ(callCount("VXFrameManager", "stopTimeline"), 0u);
    EXPECT_EQ(callCount("VXFrameManager", "deleteBehavior"), 0u);
    // Stopping still says there is no frame.
    ASSERT_TRUE(test::waitUntil([&] { return listener->last() == -1; }));
    EXPECT_TRUE(listener->errors.empty());

    // Going to a frame is asked all the same, and the robot refuses it.
    emit module->gotoFrameCurrentTimelineRequested(3);
    drain();
    EXPECT_EQ(calls("VXFrameManager", "gotoAndStop"),
              (std::vector<sim::Args> {{wz::AnyValue(""), wz::AnyValue(3)}}));
    ASSERT_EQ(listener->errors.size(), 1u);
    EXPECT_EQ(
        listener->errors[0],
        (QStringList {"Error", "Failed to do a goto in timeline", listener->errors[0].at(2)}));
    EXPECT_TRUE(listener->errors[0].at(2).contains(QStringLiteral("timeline \"\" not found")))
        << listener->errors[0].at(2).toStdString();
}

TEST_F(TimelineTest, FailuresAreShownAndLeaveNoTimeline)
{
    emit module->createTimelineRequested(QStringLiteral("fps 25\nframes many\n"));
    drain();
    ASSERT_EQ(listener->errors.size(), 1u);
    EXPECT_EQ(listener->errors[0].at(0), QStringLiteral("Error"));
    EXPECT_EQ(listener->errors[0].at(1), QStringLiteral("Failed to create timeline"));
    EXPECT_TRUE(listener->errors[0].at(2).contains(QStringLiteral("timeline line 2")))
        << listener->errors[0].at(2).toStdString();
    EXPECT_TRUE(frames().timelines().empty());
    // The empty name joined the watch and left it at its first poll.
    EXPECT_TRUE(robot().scenario().waitForCalls("VXMemory", "getData", 1, test::patience()));
    const uint64_t emptyReads = reads("");
    ASSERT_TRUE(test::barrierAfter(module->executer(), k_polls));
    EXPECT_LE(reads(""), std::max<uint64_t>(emptyReads, 1));
    EXPECT_EQ(listener->last(), -1);

    // A play the robot refuses: shown, and the timeline stays.
    const std::string id = create(QStringLiteral("frames 10"));
    robot().scenario().failMethod("VXFrameManager", "playTimeline", "motors too hot");
    robot().scenario().failMethod("VXFrameManager", "stopTimeline", "motors too hot");
    emit module->playCurrentTimelineRequested();
    emit module->pauseCurrentTimelineRequested();
    drain();
    ASSERT_EQ(listener->errors.size(), 3u);
    EXPECT_EQ(listener->errors[1].at(1), QStringLiteral("Failed to play timeline"));
    EXPECT_EQ(listener->errors[2].at(1), QStringLiteral("Failed to pause in timeline"));
    EXPECT_TRUE(listener->errors[1].at(2).contains(QStringLiteral("motors too hot")));
    EXPECT_EQ(frames().timelines(), std::vector<std::string> {id});

    // Deleting fails silently, and the desktop forgets the timeline anyway.
    robot().scenario().failMethod("VXFrameManager", "deleteBehavior", "busy");
    emit module->stopCurrentTimelineRequested();
    drain();
    EXPECT_EQ(listener->errors.size(), 3u);
    emit module->playCurrentTimelineRequested();
    drain();
    EXPECT_EQ(callCount("VXFrameManager", "playTimeline"), 1u);
}

} // namespace
