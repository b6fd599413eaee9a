#pragma once

#include <connection/operation_error.h>

#include <connection/meta_types.h>
#include <connection/morvane_interface.h>
#include <connection/nimiob_export.h>

#include <QMetaType>
#include <QMutex>
#include <QObject>

#include <boost/shared_ptr.hpp>

#include <vx/vxvalue.h>

#include <cstddef>

namespace RK {

class Connection;
class ExecuterThread;
class VideoDeviceExecuter;

// Pixel storage shared between the application, which owns it, and the video
// thread, which writes 4 bytes a pixel (blue, green, red, alpha) row after row.
// Whoever reads or writes `data` holds `mutex`; the writer only ever tries it.
struct ProtectedBuffer
{
    QMutex mutex;
    unsigned char *data = nullptr;
    // Bytes at `data`; an image that does not fit is refused, never written.
    std::size_t size = 0;
};

// A buffer of `size` bytes that frees its storage with itself.
NIMIOB_EXPORT boost::shared_ptr<ProtectedBuffer> makeProtectedBuffer(std::size_t size);

enum VideoAcquisitionError {
    // The module is missing, or no subscription could be made.
    VideoErrorCouldNotSubscribe = -1,
    // Another desktop application holds the fixed subscriber name.
    VideoErrorAlreadySubscribed = -2,
    // The poll for an image failed; acquisition is stopped as well.
    VideoErrorImageRetrieval = -3
};

// The robot's camera. Every operation returns at once; the executer's thread
// subscribes, polls one image each period, converts it into whichever of the
// two buffers the application does not hold, and signals it. A slow reader
// costs skipped images, never a delay on the robot link.
class NIMIOB_EXPORT VideoDeviceInterface
    : public QObject,
      public MorvaneInterface<VideoDeviceExecuter, ExecuterThread>
{
    Q_OBJECT

public:
    explicit VideoDeviceInterface(boost::shared_ptr<Connection> connection);
    ~VideoDeviceInterface() override;

    // `period` in milliseconds; `quality` and `resolution` are the robot's
    // resolution index (0: 160x120 ... 3: 1280x960 on the simulated robot).
    void startVideo(int period, int quality, boost::shared_ptr<ProtectedBuffer> bufferOne,
                    boost::shared_ptr<ProtectedBuffer> bufferTwo);
    void stopVideo();
    void pauseVideo();
    void resumeVideo();
    void setResolution(int resolution);
    void setPeriod(int period);

    // Polls skipped since construction because the application still held
    // both buffers or three images.
    int skippedImages() const;

signals:
    /// An operation of this interface failed (a request slot, or a method
    /// returning a future, which then finishes with its default value).
    /// Emitted exactly once for each failed operation, on a library thread
    /// (the executer's, or a pool thread): connect it with a receiver object,
    /// and it arrives queued on that object's thread.
    void errorOccurred(const RK::OperationError &error);
    /// The connection this interface belongs to has ended: from now on
    /// every request fails at once with RK::ErrorCode::ConnectionLost, and
    /// the application may drop the object. Emitted once, on the thread that
    /// destroys the connection.
    void connectionEnded();
    void startVideoRequested(int period, int quality,
                             boost::shared_ptr<RK::ProtectedBuffer> bufferOne,
                             boost::shared_ptr<RK::ProtectedBuffer> bufferTwo);
    void stopVideoRequested();
    void pauseVideoRequested();
    void resumeVideoRequested();
    void setResolutionRequested(int resolution);
    void setPeriodRequested(int period);

    void acquisitionError(RK::VideoAcquisitionError errorCode);
    // `newImageBuffer` holds a finished picture of width x height and is
    // unlocked; lock its mutex while reading it.
    void imageReceived(boost::shared_ptr<RK::ProtectedBuffer> newImageBuffer, int width, int height,
                       boost::shared_ptr<VX::VXValue> rawImage);
    void acquisitionStopped(bool isok);
};

} // namespace RK

Q_DECLARE_METATYPE(RK::VideoAcquisitionError)
Q_DECLARE_METATYPE(boost::shared_ptr<RK::ProtectedBuffer>)
Q_DECLARE_METATYPE(boost::shared_ptr<VX::VXValue>)
