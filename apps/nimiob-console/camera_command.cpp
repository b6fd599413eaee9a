#include "kit.h"

#include <connection/video_device_interface.h>

#include <QElapsedTimer>
#include <QImage>
#include <QMutexLocker>
#include <QObject>

namespace console {

// Shows the camera: images for a while, then the count, the rate and the
// polls skipped; --png keeps the last picture.
int cameraCommand(Console &console, const QStringList &arguments)
{
    Arguments args(console, "camera", arguments);
    int resolution = 2;
    int period = 20;
    int forMs = 5000;
    QString png;
    args.number("res", resolution, 0, RK::k_maxVideoResolution);
    args.number("period", period, 1, 10000);
    args.duration("for", forMs);
    if (args.option("png", png) && png.isEmpty())
        args.fail(QStringLiteral("--png wants a file name"));
    if (const int status = args.finish())
        return status;
    if (const int status = need(console, {"VXVideoDevice"}, "camera"))
        return status;
    const boost::shared_ptr<RK::VideoDeviceInterface> video
        = console.manager().videoDeviceInterface();
    if (!video)
        return missing(console, "VXVideoDevice", "camera");
    Waiter waiter(console);
    waiter.observe(video->executerObject(), QStringLiteral("VXVideoDevice"));
    const auto one = RK::makeProtectedBuffer(RK::videoBufferSize(resolution));
    const auto two = RK::makeProtectedBuffer(RK::videoBufferSize(resolution));

    int images = 0;
    int width = 0;
    int height = 0;
    qint64 firstMs = -1;
    bool failed = false;
    QImage last;
    QElapsedTimer elapsed;
    QObject receiver;
    QObject::connect(video.get(), &RK::VideoDeviceInterface::imageReceived, &receiver,
                     [&](boost::shared_ptr<RK::ProtectedBuffer> buffer, int w, int h,
                         boost::shared_ptr<VX::VXValue>) {
                         if (firstMs < 0)
                             firstMs = elapsed.elapsed();
                         ++images;
                         width = w;
                         height = h;
                         if (png.isEmpty())
                             return;
                         QMutexLocker lock(&buffer->mutex);
                         last = QImage(buffer->data, w, h, QImage::Format_ARGB32).copy();
                     });
    QObject::connect(video.get(), &RK::VideoDeviceInterface::acquisitionError, &receiver,
                     [&](RK::VideoAcquisitionError code) {
                         console.err() << "error: acquisition error " << int(code) << Qt::endl;
                         failed = true;
                     });
    elapsed.start();
    video->startVideo(period, resolution, one, two);
    const Outcome outcome = waiter.wait([&] { return failed; }, forMs);
    const double took = elapsed.elapsed() / 1000.0;
    if (outcome == Outcome::Lost)
        return waiter.fail(outcome, QStringLiteral("images"));
    bool stopped = false;
    QObject::connect(video.get(), &RK::VideoDeviceInterface::acquisitionStopped, &receiver,
                     [&](bool) { stopped = true; });
    video->stopVideo();
    const Outcome stop = waiter.wait([&] { return stopped; }, console.options().answerMs);
    if (stop == Outcome::Lost)
        return waiter.fail(stop, QStringLiteral("the camera to stop"));
    if (outcome == Outcome::Failed)
        return waiter.fail(outcome, QStringLiteral("images"));
    if (failed || images == 0) {
        console.err() << "error: no image came from the camera" << Qt::endl;
        return ExitCommandFailed;
    }
    const double fps = images / took;
    if (console.json()) {
        printJson(console,
                  {{QStringLiteral("width"), width},
                   {QStringLiteral("height"), height},
                   {QStringLiteral("images"), images},
                   {QStringLiteral("seconds"), took},
                   {QStringLiteral("fps"), fps},
                   {QStringLiteral("skipped"), video->skippedImages()},
                   {QStringLiteral("firstMs"), firstMs},
                   {QStringLiteral("png"), png.isEmpty() ? QJsonValue() : QJsonValue(png)}});
    } else {
        console.out() << QStringLiteral("Camera %1x%2: %3 images in %4 s (%5 fps), %6 skipped, "
                                        "first after %7 ms")
                             .arg(width)
                             .arg(height)
                             .arg(images)
                             .arg(took, 0, 'f', 1)
                             .arg(fps, 0, 'f', 1)
                             .arg(video->skippedImages())
                             .arg(firstMs)
                      << Qt::endl;
    }
    if (!png.isEmpty()) {
        if (!last.save(png, "PNG")) {
            console.err() << "error: cannot write " << png << Qt::endl;
            return ExitCommandFailed;
        }
        console.info() << "Saved the last image to " << png << Qt::endl;
    }
    return outcome == Outcome::Interrupted ? ExitInterrupted : ExitOk;
}

} // namespace console
