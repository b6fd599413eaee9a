#include "video_device_executer_p.h"

#include "executer_thread_p.h"
#include "morvane_interface_p.h"
#include <connection/video_device_interface.h>

#include <QMetaType>

namespace RK {

// The camera's sizes double with each resolution index, from 160x120.
int videoImageWidth(int resolution)
{
    return resolution >= 0 && resolution <= k_maxVideoResolution ? 160 << resolution : 0;
}

int videoImageHeight(int resolution)
{
    return resolution >= 0 && resolution <= k_maxVideoResolution ? 120 << resolution : 0;
}

std::size_t videoBufferSize(int resolution)
{
    return std::size_t(videoImageWidth(resolution)) * std::size_t(videoImageHeight(resolution)) * 4;
}

VideoDeviceInterface::VideoDeviceInterface(boost::shared_ptr<Connection> connection)
    : QObject(nullptr), MorvaneInterface(connection, QStringLiteral("VideoDeviceInterface"))
{
    forwardFailures(this);
    qRegisterMetaType<RK::VideoAcquisitionError>("RK::VideoAcquisitionError");
    qRegisterMetaType<boost::shared_ptr<RK::ProtectedBuffer>>(
        "boost::shared_ptr<RK::ProtectedBuffer>");
    qRegisterMetaType<boost::shared_ptr<VX::VXValue>>("boost::shared_ptr<VX::VXValue>");

    using E = VideoDeviceExecuter;
    using I = VideoDeviceInterface;
    request(this, &I::startVideoRequested, &E::startAcquisition);
    request(this, &I::stopVideoRequested, &E::stopAcquisition);
    request(this, &I::pauseVideoRequested, &E::pauseAcquisition);
    request(this, &I::resumeVideoRequested, &E::resumeAcquisition);
    request(this, &I::setResolutionRequested, &E::setResolution);
    request(this, &I::setPeriodRequested, &E::setPeriod);
    forward(&E::acquisitionError, this, &I::acquisitionError);
    forward(&E::imageReceived, this, &I::imageReceived);
    forward(&E::acquisitionStopped, this, &I::acquisitionStopped);
    // The timer stops on the thread it runs on, as that thread ends, and
    // before the owner's join() returns (QThread::finished comes after it).
    E *e = executer();
    executerThread()->atLoopEnd([e] { e->onThreadFinished(); });
}

VideoDeviceInterface::~VideoDeviceInterface()
{
    // Nothing of the executer's last words may reach this half-destroyed object.
    QObject::disconnect(executer(), nullptr, this, nullptr);
}

void VideoDeviceInterface::startVideo(int period, int quality,
                                      boost::shared_ptr<ProtectedBuffer> bufferOne,
                                      boost::shared_ptr<ProtectedBuffer> bufferTwo)
{
    emit startVideoRequested(period, quality, bufferOne, bufferTwo);
}

void VideoDeviceInterface::stopVideo()
{
    emit stopVideoRequested();
}

void VideoDeviceInterface::pauseVideo()
{
    emit pauseVideoRequested();
}

void VideoDeviceInterface::resumeVideo()
{
    emit resumeVideoRequested();
}

void VideoDeviceInterface::setResolution(int resolution)
{
    emit setResolutionRequested(resolution);
}

void VideoDeviceInterface::setPeriod(int period)
{
    emit setPeriodRequested(period);
}

int VideoDeviceInterface::skippedImages() const
{
    return executer()->skippedImages();
}

} // namespace RK
