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

/// Pixel storage shared between the application, which owns it, and the
/// camera's thread, which writes 4 bytes a pixel (blue, green, red, alpha) row
/// after row, with no padding between rows.
///
/// Whoever reads or writes \c data holds \c mutex. The camera's thread only
/// ever tries the lock: a buffer the application holds is passed over, never
/// waited for. Make one with makeProtectedBuffer() and videoBufferSize().
struct ProtectedBuffer
{
    /// Held by whoever reads or writes \c data.
    QMutex mutex;
    /// The pixels; null when the storage could not be allocated.
    unsigned char *data = nullptr;
    /// Bytes at \c data; an image that does not fit is refused, never
    /// written (VideoErrorImageRetrieval, and acquisition stops).
    std::size_t size = 0;
};

/// A buffer of \p size bytes that frees its storage with itself. When the
/// storage cannot be allocated the buffer has a null \c data and a \c size
/// of 0. Callable from any thread.
NIMIOB_EXPORT boost::shared_ptr<ProtectedBuffer> makeProtectedBuffer(std::size_t size);

/// The highest resolution index whose size videoImageWidth() and
/// videoImageHeight() know: 3, 1280x960.
constexpr int k_maxVideoResolution = 3;

/// Width in pixels of the camera's image at resolution index \p resolution
/// (0: 160, 1: 320, 2: 640, 3: 1280), or 0 for an index outside 0 to
/// k_maxVideoResolution.
NIMIOB_EXPORT int videoImageWidth(int resolution);

/// Height in pixels of the camera's image at resolution index \p resolution
/// (0: 120, 1: 240, 2: 480, 3: 960), or 0 for an index outside 0 to
/// k_maxVideoResolution.
NIMIOB_EXPORT int videoImageHeight(int resolution);

/// Bytes each of the two ProtectedBuffer objects given to
/// VideoDeviceInterface::startVideo() needs at resolution index
/// \p resolution: width x height x 4 (from 76 800 at index 0 to 4 915 200 at
/// index 3), or 0 for an index outside 0 to k_maxVideoResolution. Size the
/// buffers for the largest resolution you will pass to
/// VideoDeviceInterface::setResolution() later: the buffers are kept for the
/// whole acquisition.
/// \code
/// const std::size_t bytes = RK::videoBufferSize(resolution);
/// m_one = RK::makeProtectedBuffer(bytes);
/// m_two = RK::makeProtectedBuffer(bytes);
/// video->startVideo(50, resolution, m_one, m_two);
/// \endcode
NIMIOB_EXPORT std::size_t videoBufferSize(int resolution);

/// Why the camera stopped delivering images, as acquisitionError() carries it.
enum VideoAcquisitionError {
    /// The camera service is missing, or no subscription could be made.
    VideoErrorCouldNotSubscribe = -1,
    /// Another desktop application holds the fixed subscriber name.
    VideoErrorAlreadySubscribed = -2,
    /// The poll for an image failed, or the image did not fit the buffer;
    /// acquisition is stopped as well.
    VideoErrorImageRetrieval = -3
};

/// The robot's camera, as a stream of images into two buffers the
/// application owns.
///
/// Every method returns at once: it emits its ...Requested() signal, which
/// the executer's thread receives. That thread subscribes to the robot's
/// camera at 20 frames a second, polls one image every period, converts it
/// into whichever of the two buffers the application does not hold, and
/// emits imageReceived(). The robot hands out a new frame only every 50 ms
/// and a poll waits for it, so every period from 10 to 50 ms gives 20 images
/// a second; a longer period gives 1000 / period. A slow reader costs
/// skipped images (skippedImages()), never a delay on the robot link: while
/// the application has not yet let go of three images (queued to it or
/// still held), or holds both buffers' mutexes, polls are skipped.
///
/// \b Thread: made by the connection's worker thread, which it lives on;
/// imageReceived(), acquisitionError() and acquisitionStopped() are emitted
/// on that thread, errorOccurred() on the executer's, connectionEnded() on
/// the thread that ends the connection. Connect them with a receiver object
/// that lives on the GUI thread, and they arrive queued there. The methods
/// may be called from any thread.
///
/// \b Ownership: shared by the connection and every holder of the pointer
/// that ConnectionManager::videoDeviceInterface() returns; null when the
/// robot has no camera. A new object comes with every connection: drop the
/// pointer on ConnectionManager::disconnected(). One kept longer stays safe
/// to call, but every request then fails with ErrorCode::ConnectionLost.
/// Destroying it stops the acquisition.
class NIMIOB_EXPORT VideoDeviceInterface
    : public QObject,
      public MorvaneInterface<VideoDeviceExecuter, ExecuterThread>
{
    Q_OBJECT

public:
    /// Made by the connection; applications take it from
    /// ConnectionManager::videoDeviceInterface().
    explicit VideoDeviceInterface(boost::shared_ptr<Connection> connection);
    /// Stops the acquisition and waits for the executer's thread.
    ~VideoDeviceInterface() override;

    /// Subscribes to the camera and starts polling.
    /// \param period milliseconds between two polls (see the class: 10 to 50
    ///        all give 20 images a second).
    /// \param quality the resolution index, 0 (160x120) to 3 (1280x960);
    ///        an index the robot does not know fails the start
    ///        (acquisitionError()).
    /// \param bufferOne, bufferTwo where the images go, each at least
    ///        videoBufferSize(quality) bytes; kept until the acquisition
    ///        stops. When acquisition runs already, only the resolution and
    ///        the period change and the new buffers are ignored.
    void startVideo(int period, int quality, boost::shared_ptr<ProtectedBuffer> bufferOne,
                    boost::shared_ptr<ProtectedBuffer> bufferTwo);
    /// Stops polling and unsubscribes; acquisitionStopped() follows.
    void stopVideo();
    /// Stops polling; the robot keeps the subscription.
    void pauseVideo();
    /// Polls again after pauseVideo().
    void resumeVideo();
    /// Changes the resolution index (0 to 3) of a running acquisition; the
    /// buffers given to startVideo() must be large enough for it
    /// (videoBufferSize()), or the next image stops the acquisition.
    void setResolution(int resolution);
    /// Changes the milliseconds between two polls.
    void setPeriod(int period);

    /// Polls skipped since construction because the application still held
    /// both buffers, or had not let go of the last three images. Callable
    /// from any thread.
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
    /// Carries startVideo() to the executer's thread.
    void startVideoRequested(int period, int quality,
                             boost::shared_ptr<RK::ProtectedBuffer> bufferOne,
                             boost::shared_ptr<RK::ProtectedBuffer> bufferTwo);
    /// Carries stopVideo() to the executer's thread.
    void stopVideoRequested();
    /// Carries pauseVideo() to the executer's thread.
    void pauseVideoRequested();
    /// Carries resumeVideo() to the executer's thread.
    void resumeVideoRequested();
    /// Carries setResolution() to the executer's thread.
    void setResolutionRequested(int resolution);
    /// Carries setPeriod() to the executer's thread.
    void setPeriodRequested(int period);

    /// The acquisition could not start or had to stop (\p errorCode says
    /// why); after VideoErrorImageRetrieval acquisitionStopped() follows.
    /// A poll cut by the connection's loss is not one: the manager tells the
    /// loss, and acquisitionStopped(false) alone follows.
    void acquisitionError(RK::VideoAcquisitionError errorCode);
    /// A new image: \p newImageBuffer (one of the two buffers given to
    /// startVideo()) holds a finished picture of \p width x \p height
    /// pixels and is unlocked; lock its mutex while reading it, and let go
    /// soon. \p rawImage is the robot's own image (its bytes are YUV 4:2:2,
    /// 2 bytes a pixel, at index 6); while the application holds three of
    /// these, polls are skipped.
    void imageReceived(boost::shared_ptr<RK::ProtectedBuffer> newImageBuffer, int width, int height,
                       boost::shared_ptr<VX::VXValue> rawImage);
    /// Polling has stopped and the subscription is given back: \p isok is
    /// true when the robot accepted the unsubscription, false when there was
    /// nothing to stop, the robot refused it (the subscription may then
    /// stay on the robot) or the connection was lost.
    void acquisitionStopped(bool isok);
};

} // namespace RK

Q_DECLARE_METATYPE(RK::VideoAcquisitionError)
Q_DECLARE_METATYPE(boost::shared_ptr<RK::ProtectedBuffer>)
Q_DECLARE_METATYPE(boost::shared_ptr<VX::VXValue>)
