#include "robot_fixture.h"

#include <connection/video_device_interface.h>

#include <climits>
#include <vector>

namespace {

TEST(VideoBufferSize, SizesDoubleFromTheSmallestAndUnknownIndexesGiveZero)
{
    const int widths[] = {160, 320, 640, 1280};
    const int heights[] = {120, 240, 480, 960};
    for (int r = 0; r <= RK::k_maxVideoResolution; ++r) {
        EXPECT_EQ(RK::videoImageWidth(r), widths[r]) << r;
        EXPECT_EQ(RK::videoImageHeight(r), heights[r]) << r;
        EXPECT_EQ(RK::videoBufferSize(r), std::size_t(widths[r]) * heights[r] * 4) << r;
    }
    // Out of range: no shift past the int, no size that would pass for a buffer.
    for (int r : {-1, RK::k_maxVideoResolution + 1, 31, 32, INT_MIN, INT_MAX}) {
        EXPECT_EQ(RK::videoImageWidth(r), 0) << r;
        EXPECT_EQ(RK::videoImageHeight(r), 0) << r;
        EXPECT_EQ(RK::videoBufferSize(r), 0u) << r;
    }
}

struct Frame
{
    RK::ProtectedBuffer *buffer;
    int width;
    int height;
};

class VideoBufferSizeRobotTest : public test::RobotTest
{
protected:
    void SetUp() override
    {
        test::RobotTest::SetUp();
        recorder = std::make_unique<test::Recorder>();
        ASSERT_TRUE(recorder->connectAndWait(robot()));
        video = recorder->manager->videoDeviceInterface();
        ASSERT_TRUE(video);
        QObject::connect(video.get(), &RK::VideoDeviceInterface::imageReceived, &context,
                         [this](boost::shared_ptr<RK::ProtectedBuffer> buffer, int w, int h,
                                boost::shared_ptr<VX::VXValue>) {
                             frames.push_back({buffer.get(), w, h});
                         });
        QObject::connect(video.get(), &RK::VideoDeviceInterface::acquisitionError, &context,
                         [this](RK::VideoAcquisitionError e) { errors.push_back(e); });
        QObject::connect(video.get(), &RK::VideoDeviceInterface::acquisitionStopped, &context,
                         [this](bool) { ++stops; });
    }
    void TearDown() override
    {
        video.reset();
        recorder.reset();
        test::RobotTest::TearDown();
    }
    bool stopAndWait()
    {
        const int before = stops;
        video->stopVideo();
        return test::waitUntil([&] { return stops > before; });
    }

    QObject context;
    std::unique_ptr<test::Recorder> recorder;
    boost::shared_ptr<RK::VideoDeviceInterface> video;
    std::vector<Frame> frames;
    std::vector<RK::VideoAcquisitionError> errors;
    int stops = 0;
};

// The robot's own images fit buffers of exactly the size given, at every
// resolution, and the sizes it reports are the ones the functions name.
TEST_F(VideoBufferSizeRobotTest, ExactSizeHoldsTheRobotsImageAtEveryResolution)
{
    for (int r = 0; r <= RK::k_maxVideoResolution; ++r) {
        const auto one = RK::makeProtectedBuffer(RK::videoBufferSize(r));
        const auto two = RK::makeProtectedBuffer(RK::videoBufferSize(r));
        ASSERT_EQ(one->size, RK::videoBufferSize(r));
        const size_t mark = frames.size();
        video->startVideo(20, r, one, two);
        ASSERT_TRUE(test::waitUntil([&] { return frames.size() > mark; })) << r;
        EXPECT_EQ(frames.back().width, RK::videoImageWidth(r));
        EXPECT_EQ(frames.back().height, RK::videoImageHeight(r));
        EXPECT_TRUE(frames.back().buffer == one.get() || frames.back().buffer == two.get());
        ASSERT_TRUE(stopAndWait()) << r;
    }
    EXPECT_TRUE(errors.empty());
}

// One byte short is refused before anything is written past the end.
TEST_F(VideoBufferSizeRobotTest, OneByteShortIsRefused)
{
    const auto one = RK::makeProtectedBuffer(RK::videoBufferSize(1) - 1);
    const auto two = RK::makeProtectedBuffer(RK::videoBufferSize(1) - 1);
    video->startVideo(20, 1, one, two);
    ASSERT_TRUE(test::waitUntil([&] { return !errors.empty(); }));
    EXPECT_EQ(errors.front(), RK::VideoErrorImageRetrieval);
    EXPECT_TRUE(frames.empty());
    ASSERT_TRUE(test::waitUntil([&] { return stops > 0; }));
}

} // namespace
