#include "executer_call_p.h"
#include "text_p.h"
#include "video_device_executer_p.h"
#include "yuv_to_bgra_p.h"

#include "connection_p.h"

#include <QUuid>

#include <boost/make_shared.hpp>

#include <vx/vxerror.h>
#include <vx/vxproxy.h>
#include <wz/log.h>

#include <algorithm>
#include <cstdint>
#include <new>

namespace RK {

namespace {

const char *const k_category = "con.videoE";

wz::log::LogStream logError(const char *function)
{
    return wz::log::LogStream(wz::LogLevel_Error, k_category, function);
}

} // namespace

boost::shared_ptr<ProtectedBuffer> makeProtectedBuffer(std::size_t size)
{
    auto *buffer = new ProtectedBuffer;
    buffer->data = new (std::nothrow) unsigned char[size > 0 ? size : 1];
    buffer->size = buffer->data ? size : 0;
    return boost::shared_ptr<ProtectedBuffer>(buffer, [](ProtectedBuffer *b) {
        delete[] b->data;
        delete b;
    });
}

VideoDeviceExecuter::VideoDeviceExecuter(boost::shared_ptr<Connection> connection)
    : QObject(nullptr), m_connection(connection), m_timer(new QTimer(this))
{
    m_timer->setInterval(a_defaultPeriod);
    connect(m_timer, &QTimer::timeout, this, &VideoDeviceExecuter::requestNewImage);
}

VideoDeviceExecuter::~VideoDeviceExecuter()
{
    m_destroying = true;
    stopAcquisition();
}

void VideoDeviceExecuter::onThreadFinished()
{
    m_timer->stop();
}

void VideoDeviceExecuter::fail(VideoAcquisitionError code)
{
    if (!m_destroying)
        emit acquisitionError(code);
}

void VideoDeviceExecuter::stopped(bool isok)
{
    if (!m_destroying)
        emit acquisitionStopped(isok);
}

void VideoDeviceExecuter::startAcquisition(int period, int quality,
                                           boost::shared_ptr<ProtectedBuffer> bufferOne,
                                           boost::shared_ptr<ProtectedBuffer> bufferTwo)
{
    if (m_subscribed) {
        logError(__FUNCTION__) << "Video Monitor: Already subscribed.";
        setResolution(quality);
        m_timer->setInterval(period);
        return;
    }
    VideoAcquisitionError code = VideoErrorCouldNotSubscribe;
    const bool subscribed = executerCall(this, m_connection, "startVideo")
                                .log(k_category)
                                .attempt(&Connection::videoDevice, [&](VX::VXProxy &proxy) {
                                    subscribe(proxy, quality, code);
                                });
    if (!subscribed) {
        fail(code);
        return;
    }
    m_bufferOne = bufferOne;
    m_bufferTwo = bufferTwo;
    m_subscribed = true;
    m_timer->setInterval(period);
    if (!m_timer->isActive())
        m_timer->start();
}

void VideoDeviceExecuter::subscribe(VX::VXProxy &proxy, int quality, VideoAcquisitionError &code)
{
    try {
        // A fresh name for each run: the first eight hexadecimal digits of a UUID.
        const QString name = QUuid::createUuid().toString().mid(1, 8);
        const QString name0 = name + QStringLiteral("_0");
        QString id = QString::fromStdString(
            proxy.call<std::string>("subscribeCamera", utf8(name), -1, quality, 9, 20));
        if (id.isEmpty())
            throw CallFailure(ErrorCode::RobotFailed, "Could not subscribe to video device.");
        if (id != name && id != name0) {
            proxy.call<void>("unsubscribe", utf8(name0));
            proxy.call<void>("unsubscribe", utf8(id));
            id = QString::fromStdString(
                proxy.call<std::string>("subscribeCamera", utf8(name), -1, quality, 9, 20));
        }
        m_subscriberId = id;
    } catch (const VX::VXError &) {
        // An older device has only the older route.
        subscribeOlderRoute(proxy, quality, code);
    }
}

void VideoDeviceExecuter::subscribeOlderRoute(VX::VXProxy &proxy, int quality,
                                              VideoAcquisitionError &code)
{
    const QString fixedName = QStringLiteral("VideoMonitorSartel");
    const QString id = QString::fromStdString(
        proxy.call<std::string>("subscribe", utf8(fixedName), quality, 9, 20));
    if (id.isEmpty() || id == QStringLiteral("0"))
        throw CallFailure(ErrorCode::RobotFailed, "Could not subscribe to video device.");
    if (id == fixedName || id == fixedName + QStringLiteral("_0")) {
        m_subscriberId = id;
        return;
    }
    code = VideoErrorAlreadySubscribed;
    try {
        proxy.call<void>("unsubscribe", utf8(id));
    } catch (const std::exception &e) {
        logError(__FUNCTION__) << "VideoDeviceExecuter : cannot unsubscribe from VXVideoDevice: "
                               << e.what();
    }
    throw CallFailure(ErrorCode::RobotFailed, "Another Sartel instance is already subscribed");
}

int VideoDeviceExecuter::heldImages() const
{
    int held = 0;
    for (const boost::weak_ptr<VX::VXValue> &sent : m_sent) {
        const boost::shared_ptr<VX::VXValue> image = sent.lock();
        if (!image)
            continue;
        // Not counting `image` itself, nor the executer's own latest image.
        const long others = image.use_count() - 1 - (image == m_latestImage ? 1 : 0);
        if (others > 0)
            ++held;
    }
    return held;
}

ProtectedBuffer *VideoDeviceExecuter::tryTake(const boost::shared_ptr<ProtectedBuffer> &buffer)
{
    if (buffer && buffer->mutex.tryLock()) {
        m_currentBuffer = buffer;
        return buffer.get();
    }
    return nullptr;
}

// A slow reader skips an image every period: one line per interval says
// how many went and why, instead of one line per image.
void VideoDeviceExecuter::skipImage(SkipReason reason, int count)
{
    ++m_skipped;
    ++m_skippedSinceReport;
    if (m_skipReportClock.isValid() && !m_skipReportClock.hasExpired(a_skipReportIntervalMs))
        return;
    const bool first = !m_skipReportClock.isValid();
    const qint64 elapsedMs = first ? 0 : m_skipReportClock.elapsed();
    m_skipReportClock.start();
    wz::log::LogStream line(wz::LogLevel_Warning, k_category, "requestNewImage");
    line << "Skipped " << m_skippedSinceReport << " image(s)";
    if (!first)
        line << " in the last " << (elapsedMs + 500) / 1000 << " s";
    if (reason == SkipReason::ImagesHeld)
        line << ": the application has not yet taken the last " << count
             << " images (queued to it or still held), so the robot is not asked for more";
    else
        line << ": both image buffers are locked by the application";
    m_skippedSinceReport = 0;
}

void VideoDeviceExecuter::requestNewImage()
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    const boost::shared_ptr<VX::VXProxy> proxy = connection ? connection->videoDevice() : nullptr;
    if (!proxy) {
        logError(__FUNCTION__) << "Could not find VXVideoDevice Morvane module.";
        fail(VideoErrorImageRetrieval);
        stopAcquisition();
        return;
    }
    // Images still queued to or held by the application: a slow reader loses
    // images rather than piling them up.
    m_sent.erase(std::remove_if(m_sent.begin(), m_sent.end(),
                                [](const boost::weak_ptr<VX::VXValue> &w) { return w.expired(); }),
                 m_sent.end());
    const int held = heldImages();
    if (held >= a_maxHeldImages) {
        skipImage(SkipReason::ImagesHeld, held);
        return;
    }
    try {
        m_latestImage = boost::make_shared<VX::VXValue>(
            proxy->call<VX::VXValue>("getImageRemote", utf8(m_subscriberId)));
        const VX::VXValue &image = *m_latestImage;
        bool usable = image.isArray() && image.getSize() >= 7;
        int width = 0;
        int height = 0;
        if (usable) {
            width = image[0].toInt();
            height = image[1].toInt();
            usable = width >= 0 && height >= 0 && image[6].isBinary()
                && static_cast<int64_t>(image[6].getSize()) >= int64_t(2) * width * height;
        }
        if (!usable) {
            logError(__FUNCTION__)
                << "Cannot retrieve images from VXVideoDevice (returned image is NULL)";
            fail(VideoErrorImageRetrieval);
            stopAcquisition();
            return;
        }
        m_width = width;
        m_height = height;
        ProtectedBuffer *buffer = tryTake(m_bufferOne);
        if (!buffer)
            buffer = tryTake(m_bufferTwo);
        if (!buffer) {
            skipImage(SkipReason::BuffersLocked, 2);
            return;
        }
        const uint64_t needed = uint64_t(4) * static_cast<uint64_t>(width) * height;
        if (!buffer->data || buffer->size < needed) {
            const std::size_t size = buffer->size;
            buffer->mutex.unlock();
            logError(__FUNCTION__) << "Cannot retrieve images from VXVideoDevice: a buffer of "
                                   << size << " bytes cannot hold " << width << "x" << height;
            fail(VideoErrorImageRetrieval);
            stopAcquisition();
            return;
        }
        convertYuv422ToBgra(static_cast<const unsigned char *>(image[6].GetBinary()), buffer->data,
                            static_cast<std::size_t>(width) * height / 2);
        buffer->mutex.unlock();
        m_sent.push_back(m_latestImage);
        emit imageReceived(m_currentBuffer, width, height, m_latestImage);
    } catch (const std::exception &e) {
        if (classifyFailure(connection.get(), e) == ErrorCode::ConnectionLost) {
            // The link went with the poll: the connection tells its loss, and
            // the subscription ends with the robot's session. Polling stops.
            wz::log::LogStream(wz::LogLevel_Info, k_category, __FUNCTION__)
                << "The camera stops with the connection: " << e.what();
            m_timer->stop();
            m_subscribed = false;
            stopped(false);
            return;
        }
        logError(__FUNCTION__) << "Cannot retrieve images from VXVideoDevice: " << e.what();
        fail(VideoErrorImageRetrieval);
        stopAcquisition();
    }
}

void VideoDeviceExecuter::stopAcquisition()
{
    m_timer->stop();
    if (!m_subscribed) {
        if (!m_destroying)
            logError(__FUNCTION__) << "The calling subscriber is already unsubscribed.";
        stopped(false);
        return;
    }
    m_subscribed = false;
    auto call = executerCall(this, m_connection, "stopVideo");
    call.log(k_category);
    // The executer going takes the subscription with it: nobody is left to tell.
    if (m_destroying)
        call.quietly();
    stopped(call.attempt(&Connection::videoDevice, [&](VX::VXProxy &proxy) {
        proxy.call<void>("unsubscribe", utf8(m_subscriberId));
    }));
}

void VideoDeviceExecuter::pauseAcquisition()
{
    m_timer->stop();
}

void VideoDeviceExecuter::resumeAcquisition()
{
    if (!m_timer->isActive())
        m_timer->start();
}

void VideoDeviceExecuter::setPeriod(int period)
{
    m_timer->setInterval(period);
}

void VideoDeviceExecuter::setResolution(int resolution)
{
    executerCall(this, m_connection, "setResolution")
        .log(k_category)
        .run(&Connection::videoDevice, [&](VX::VXProxy &proxy) {
            proxy.call<void>("setResolution", utf8(m_subscriberId), resolution);
            m_resolution = resolution;
        });
}

} // namespace RK
