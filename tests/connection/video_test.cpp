#include "robot_fixture.h"
#include "yuv_to_bgra_p.h"

#include <wz/log.h>

#include "connection_p.h"
#include <connection/video_device_interface.h>

#include <QImage>
#include <QTemporaryDir>

#include <sim/video_device_service.h>

#include <array>
#include <memory>
#include <vector>

namespace {

using Bgra = std::array<int, 4>;

Bgra convertOne(int y, int u, int v)
{
    const unsigned char in[4] = {static_cast<unsigned char>(y), static_cast<unsigned char>(u),
                                 static_cast<unsigned char>(y), static_cast<unsigned char>(v)};
    unsigned char out[8] = {};
    RK::yuv::convert(RK::yuv::Kernel::Reference, in, out, 1);
    return {out[0], out[1], out[2], out[3]};
}

struct Image
{
    RK::ProtectedBuffer *buffer;
    int width;
    int height;
};

class VideoTest : public test::RobotTest
{
protected:
    void SetUp() override
    {
        test::RobotTest::SetUp();
        camera().reset();
        recorder = std::make_unique<test::Recorder>();
        ASSERT_TRUE(recorder->connectAndWait(robot()));
        video = recorder->manager->videoDeviceInterface();
        ASSERT_TRUE(video);
        QObject::connect(video.get(), &RK::VideoDeviceInterface::imageReceived, &context,
                         [this](boost::shared_ptr<RK::ProtectedBuffer> buffer, int w, int h,
                                boost::shared_ptr<VX::VXValue> raw) {
                             images.push_back({buffer.get(), w, h});
                             if (keepRaw)
                                 raws.push_back(raw);
                             else
                                 lastRaw = raw ? *raw : VX::VXValue();
                         });
        QObject::connect(video.get(), &RK::VideoDeviceInterface::acquisitionError, &context,
                         [this](RK::VideoAcquisitionError e) { errors.push_back(e); });
        QObject::connect(video.get(), &RK::VideoDeviceInterface::acquisitionStopped, &context,
                         [this](bool ok) { stops.push_back(ok); });
        one = RK::makeProtectedBuffer(640 * 480 * 4);
        two = RK::makeProtectedBuffer(640 * 480 * 4);
    }
    void TearDown() override
    {
        video.reset();
        recorder.reset();
        camera().reset();
        test::RobotTest::TearDown();
    }

    static sim::VideoDeviceService &camera()
    {
        return *robot().serviceAs<sim::VideoDeviceService>("VXVideoDevice");
    }
    bool imagesAtLeast(size_t n)
    {
        return test::waitUntil([&] { return images.size() >= n; });
    }
    bool stopped()
    {
        return test::waitUntil([&] { return !stops.empty(); });
    }
    bool failed()
    {
        return test::waitUntil([&] { return !errors.empty(); });
    }

    QObject context;
    std::unique_ptr<test::Recorder> recorder;
    boost::shared_ptr<RK::VideoDeviceInterface> video;
    boost::shared_ptr<RK::ProtectedBuffer> one;
    boost::shared_ptr<RK::ProtectedBuffer> two;
    std::vector<Image> images;
    std::vector<RK::VideoAcquisitionError> errors;
    std::vector<bool> stops;
    bool keepRaw = false;
    std::vector<boost::shared_ptr<VX::VXValue>> raws;
    VX::VXValue lastRaw;
};

TEST_F(VideoTest, ImageRoundTripsToPng)
{
    video->startVideo(20, 0, one, two);
    ASSERT_TRUE(imagesAtLeast(1));
    ASSERT_EQ(images[0].width, 160);
    ASSERT_EQ(images[0].height, 120);
    video->stopVideo();
    ASSERT_TRUE(stopped());

    // The robot's bytes are its documented picture of some frame.
    const std::string yuv(static_cast<const char *>(lastRaw[6].GetBinary()), 160 * 120 * 2);
    const uint64_t frame = static_cast<unsigned char>(yuv[0]) - 16;
    ASSERT_EQ(frame % 3, 0u);
    ASSERT_EQ(yuv, sim::VideoDeviceService::frameBytes(160, 120, frame / 3));

    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("frame.png"));
    {
        RK::ProtectedBuffer *b = images.back().buffer;
        QMutexLocker lock(&b->mutex);
        ASSERT_TRUE(QImage(b->data, 160, 120, QImage::Format_ARGB32).save(path));
    }
    const QImage png(path);
    ASSERT_EQ(png.size(), QSize(160, 120));
    for (const QPoint p : {QPoint(0, 0), QPoint(37, 5), QPoint(158, 119), QPoint(80, 60)}) {
        const int pair = (p.y() * 160 + (p.x() & ~1)) * 2;
        const Bgra expected = convertOne(
            static_cast<unsigned char>(yuv[pair + ((p.x() & 1) ? 2 : 0)]),
            static_cast<unsigned char>(yuv[pair + 1]), static_cast<unsigned char>(yuv[pair + 3]));
        const QRgb got = png.pixel(p);
        EXPECT_EQ(qBlue(got), expected[0]) << p.x() << "," << p.y();
        EXPECT_EQ(qGreen(got), expected[1]);
        EXPECT_EQ(qRed(got), expected[2]);
        EXPECT_EQ(qAlpha(got), 255);
    }
}

TEST_F(VideoTest, AcquisitionBuffersPauseResumeAndRestart)
{
    video->startVideo(20, 1, one, two);
    ASSERT_TRUE(imagesAtLeast(2));
    EXPECT_EQ(images[0].width, 320);
    EXPECT_EQ(images[0].buffer, one.get()) << "buffer one is tried first";
    ASSERT_EQ(camera().subscribers().size(), 1u);

    // The reader holds buffer one: pictures land in buffer two.
    one->mutex.lock();
    size_t mark = images.size();
    ASSERT_TRUE(test::waitUntil(
        [&] { return images.size() > mark + 1 && images.back().buffer == two.get(); }));
    // Both held: polls are skipped, nothing is signalled.
    two->mutex.lock();
    const int skippedBefore = video->skippedImages();
    ASSERT_TRUE(test::waitUntil([&] { return video->skippedImages() > skippedBefore + 2; }));
    mark = images.size();
    one->mutex.unlock();
    two->mutex.unlock();
    ASSERT_TRUE(imagesAtLeast(mark + 1));

    // Paused, the robot keeps the subscription; resumed, images come again.
    video->pauseVideo();
    video->resumeVideo();
    mark = images.size();
    ASSERT_TRUE(imagesAtLeast(mark + 2));
    EXPECT_EQ(camera().subscribers().size(), 1u);

    // A second start while running: new resolution, same buffers.
    video->startVideo(20, 2, RK::makeProtectedBuffer(4), RK::makeProtectedBuffer(4));
    ASSERT_TRUE(test::waitUntil([&] { return images.back().width == 640; }));
    EXPECT_TRUE(images.back().buffer == one.get() || images.back().buffer == two.get());

    video->stopVideo();
    ASSERT_TRUE(stopped());
    EXPECT_TRUE(stops[0]);
    EXPECT_TRUE(camera().subscribers().empty());
    EXPECT_TRUE(errors.empty());

    // Stopping again: nothing to unsubscribe.
    video->stopVideo();
    ASSERT_TRUE(test::waitUntil([&] { return stops.size() == 2; }));
    EXPECT_FALSE(stops[1]);

    // A fresh start at the largest resolution with buffers to match.
    auto big1 = RK::makeProtectedBuffer(1280 * 960 * 4);
    auto big2 = RK::makeProtectedBuffer(1280 * 960 * 4);
    mark = images.size();
    video->startVideo(20, 3, big1, big2);
    ASSERT_TRUE(imagesAtLeast(mark + 1));
    EXPECT_EQ(images.back().width, 1280);
    EXPECT_EQ(images.back().height, 960);
    EXPECT_EQ(images.back().buffer, big1.get());
}

TEST_F(VideoTest, ImagesHeldByTheApplicationSkipPolls)
{
    wz::log::LogCapture logs;
    keepRaw = true;
    video->startVideo(20, 0, one, two);
    // A poll every 20 ms: a dozen skipped, and one line that says why, not
    // a line for each (the buffers themselves are free all along).
    ASSERT_TRUE(test::waitUntil([&] { return video->skippedImages() > 12; }));
    const auto lines = logs.find("con.videoE", "Skipped");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].message.find("Skipped 1 image(s): the application has not yet taken the "
                                    "last 3 images"),
              std::string::npos)
        << lines[0].message;
    EXPECT_EQ(lines[0].message.find("buffers"), std::string::npos) << lines[0].message;
    EXPECT_EQ(raws.size(), 3u);
    raws.clear();
    const size_t mark = images.size();
    keepRaw = false;
    ASSERT_TRUE(imagesAtLeast(mark + 2));
}

TEST_F(VideoTest, SubscriptionFallbacksAndErrors)
{
    // The older route, when subscribeCamera fails: the fixed name, or its
    // "_0" form, stands.
    robot().scenario().failMethod("VXVideoDevice", "subscribeCamera", "no such method here");
    camera().holdName("VideoMonitorSartel");
    video->startVideo(20, 0, one, two);
    ASSERT_TRUE(imagesAtLeast(1));
    EXPECT_EQ(camera().subscribers(), std::vector<std::string> {"VideoMonitorSartel_0"});
    video->stopVideo();
    ASSERT_TRUE(stopped());

    // Another application holds both forms: -2, and nothing is left behind.
    camera().holdName("VideoMonitorSartel_0");
    video->startVideo(20, 0, one, two);
    ASSERT_TRUE(failed());
    EXPECT_EQ(errors[0], RK::VideoErrorAlreadySubscribed);
    EXPECT_TRUE(camera().subscribers().empty());

    // Neither route: -1.
    robot().scenario().failMethod("VXVideoDevice", "subscribe", "camera unplugged");
    errors.clear();
    video->startVideo(20, 0, one, two);
    ASSERT_TRUE(failed());
    EXPECT_EQ(errors[0], RK::VideoErrorCouldNotSubscribe);
}

TEST_F(VideoTest, BadImagesStopTheAcquisition)
{
    const std::vector<sim::VideoDeviceService::ImageFault> faults = {
        sim::VideoDeviceService::ImageFault::Malformed, sim::VideoDeviceService::ImageFault::Short};
    for (auto fault : faults) {
        errors.clear();
        stops.clear();
        camera().setImageFault(fault);
        video->startVideo(20, 0, one, two);
        ASSERT_TRUE(failed());
        EXPECT_EQ(errors[0], RK::VideoErrorImageRetrieval);
        ASSERT_TRUE(stopped());
        EXPECT_TRUE(stops[0]);
        EXPECT_TRUE(camera().subscribers().empty());
    }
    EXPECT_TRUE(images.empty());

    // A buffer too small for the picture is refused, never overrun.
    camera().setImageFault(sim::VideoDeviceService::ImageFault::None);
    errors.clear();
    auto small = RK::makeProtectedBuffer(160 * 120 * 4 - 1);
    video->startVideo(20, 0, small, small);
    ASSERT_TRUE(failed());
    EXPECT_EQ(errors[0], RK::VideoErrorImageRetrieval);
    EXPECT_TRUE(images.empty());

    // A failing poll, too.
    errors.clear();
    robot().scenario().failMethod("VXVideoDevice", "getImageRemote", "sensor fault");
    video->startVideo(20, 0, one, two);
    ASSERT_TRUE(failed());
    EXPECT_EQ(errors[0], RK::VideoErrorImageRetrieval);
}

TEST_F(VideoTest, APollCutByTheLinkIsNoCameraError)
{
    // The poll is on the robot when the link goes: its failure is the link's,
    // which the connection tells, not the camera's.
    robot().scenario().holdMethod("VXVideoDevice", "getImageRemote");
    video->startVideo(20, 0, one, two);
    ASSERT_TRUE(
        robot().scenario().waitForCalls("VXVideoDevice", "getImageRemote", 1, test::patience()));
    robot().scenario().dropClients();
    ASSERT_TRUE(recorder->waitFor(QStringLiteral("connectionLost")));
    // Once the workers are gone, whatever the executer emitted is queued here.
    ASSERT_TRUE(test::waitUntil([this] { return recorder->workerCount() == 0; }));
    ASSERT_TRUE(test::barrier(&context));
    EXPECT_TRUE(errors.empty()) << "acquisitionError(" << errors.front() << ")";
    robot().scenario().restoreMethod("VXVideoDevice", "getImageRemote");
}

TEST_F(VideoTest, DisconnectionDuringAcquisition)
{
    video->startVideo(10, 2, one, two);
    ASSERT_TRUE(imagesAtLeast(2));
    ASSERT_TRUE(recorder->disconnectAndWait());
    // The robot forgets the subscriber of a client that left.
    EXPECT_TRUE(test::waitUntil([] { return camera().subscribers().empty(); }));
    // The application's copy of the interface still answers, to nobody.
    video->stopVideo();
    video.reset();
}

} // namespace
