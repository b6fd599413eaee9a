#pragma once

#include <connection/operation_error.h>

#include <connection/video_device_interface.h>

#include <QElapsedTimer>
#include <QObject>
#include <QString>
#include <QTimer>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <atomic>
#include <deque>

namespace VX {
class VXProxy;
}

namespace RK {

class Connection;

// Subscribes to "VXVideoDevice", polls it on a timer and converts each image
// into one of the application's two buffers. Lives on its ExecuterThread.
class VideoDeviceExecuter : public QObject
{
    Q_OBJECT

public:
    static const int a_defaultPeriod = 20;
    // Images the application may hold (queued or in use) before polls are
    // skipped.
    static const int a_maxHeldImages = 3;
    // At most one line about skipped images in this time.
    static const int a_skipReportIntervalMs = 5000;

    explicit VideoDeviceExecuter(boost::shared_ptr<Connection> connection);
    // Unsubscribes from the robot, and tells nobody: the interface is going.
    ~VideoDeviceExecuter() override;

    int skippedImages() const { return m_skipped.load(); }

public slots:
    void startAcquisition(int period, int quality, boost::shared_ptr<RK::ProtectedBuffer> bufferOne,
                          boost::shared_ptr<RK::ProtectedBuffer> bufferTwo);
    void stopAcquisition();
    void pauseAcquisition();
    void resumeAcquisition();
    void setResolution(int resolution);
    void setPeriod(int period);
    void requestNewImage();
    // Runs on the executer's thread as it ends: its timer must stop there.
    void onThreadFinished();

signals:
    // Each failed operation, once; its interface forwards it.
    void errorOccurred(const RK::OperationError &error);
    void acquisitionError(RK::VideoAcquisitionError errorCode);
    void imageReceived(boost::shared_ptr<RK::ProtectedBuffer> newImageBuffer, int width, int height,
                       boost::shared_ptr<VX::VXValue> rawImage);
    void acquisitionStopped(bool isok);

private:
    void fail(VideoAcquisitionError code);
    void stopped(bool isok);
    // Throw on failure; `code` says which acquisition error it is.
    void subscribe(VX::VXProxy &proxy, int quality, VideoAcquisitionError &code);
    void subscribeOlderRoute(VX::VXProxy &proxy, int quality, VideoAcquisitionError &code);
    int heldImages() const;
    enum class SkipReason { ImagesHeld, BuffersLocked };
    void skipImage(SkipReason reason, int count);
    ProtectedBuffer *tryTake(const boost::shared_ptr<ProtectedBuffer> &buffer);

    boost::weak_ptr<Connection> m_connection;
    QString m_subscriberId;
    int m_resolution = -1;
    int m_width = 0;
    int m_height = 0;
    bool m_subscribed = false;
    QTimer *m_timer;
    boost::shared_ptr<ProtectedBuffer> m_currentBuffer;
    boost::shared_ptr<ProtectedBuffer> m_bufferOne;
    boost::shared_ptr<ProtectedBuffer> m_bufferTwo;
    boost::shared_ptr<VX::VXValue> m_latestImage;
    // Images signalled lately, to see how many the application still holds.
    std::deque<boost::weak_ptr<VX::VXValue>> m_sent;
    std::atomic<int> m_skipped {0};
    // Skips are reported at most once an interval, with their count.
    QElapsedTimer m_skipReportClock;
    int m_skippedSinceReport = 0;
    bool m_destroying = false;
};

} // namespace RK
