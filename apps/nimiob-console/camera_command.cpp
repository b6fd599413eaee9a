#include "commands.h"
#include "console.h"

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
    int resolution = 2;
    int period = 20;
    int seconds = 5;
    QString png;
    for (int i = 0; i < arguments.size(); ++i) {
        const QString &arg = arguments.at(i);
        const QString value = i + 1 < arguments.size() ? arguments.at(i + 1) : QString();
        bool ok = false;
        if (arg == QLatin1String("--res")) {
            resolution = value.toInt(&ok);
            ok = ok && resolution >= 0 && resolution <= 3;
        } else if (arg == QLatin1String("--period")) {
            period = value.toInt(&ok);
            ok = ok && period >= 1 && period <= 10000;
        } else if (arg == QLatin1String("--for")) {
            seconds = value.toInt(&ok);
            ok = ok && seconds >= 1 && seconds <= 86400;
        } else if (arg == QLatin1String("--png")) {
            png = value;
            ok = !png.isEmpty();
        }
        if (!ok) {
            console.err() << "error: camera takes --res 0-3, --period MS, --for S and --png FILE"
                          << Qt::endl;
            return ExitUsage;
        }
        ++i;
    }
    const boost::shared_ptr<RK::VideoDeviceInterface> video
        = console.manager().videoDeviceInterface();
    if (!video) {
        console.err() << "error: the robot has no camera (VXVideoDevice)" << Qt::endl;
        return ExitCommandFailed;
    }
    const std::size_t largest = std::size_t(160 << resolution) * (120 << resolution) * 4;
    const auto one = RK::makeProtectedBuffer(largest);
    const auto two = RK::makeProtectedBuffer(largest);

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
    console.waitUntil([&] { return failed; }, seconds * 1000);
    const double took = elapsed.elapsed() / 1000.0;
    bool stopped = false;
    QObject::connect(video.get(), &RK::VideoDeviceInterface::acquisitionStopped, &receiver,
                     [&](bool) { stopped = true; });
    video->stopVideo();
    console.waitUntil([&] { return stopped; }, 5000);
    if (failed || images == 0) {
        console.err() << "error: no image came from the camera" << Qt::endl;
        return ExitCommandFailed;
    }
    console.out() << QStringLiteral("Camera %1x%2: %3 images in %4 s (%5 fps), %6 skipped, "
                                    "first after %7 ms")
                         .arg(width)
                         .arg(height)
                         .arg(images)
                         .arg(took, 0, 'f', 1)
                         .arg(images / took, 0, 'f', 1)
                         .arg(video->skippedImages())
                         .arg(firstMs)
                  << Qt::endl;
    if (!png.isEmpty()) {
        if (!last.save(png, "PNG")) {
            console.err() << "error: cannot write " << png << Qt::endl;
            return ExitCommandFailed;
        }
        console.out() << "Saved the last image to " << png << Qt::endl;
    }
    return ExitOk;
}

} // namespace console
