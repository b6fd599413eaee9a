#pragma once

#include <connection/operation_error.h>

#include <connection/meta_types.h>
#include <connection/morvane_interface.h>
#include <connection/nimiob_export.h>

#include <QMetaType>
#include <QMutex>
#include <QObject>
#include <QSet>
#include <QString>

#include <boost/shared_ptr.hpp>

#include <vx/vxvalue.h>

#include <atomic>
#include <string>
#include <vector>

namespace wz {
class Session;
}

namespace RK {

class Connection;
class ExecuterThread;
class MethodRecorderExecuter;

/// Motion recording on the robot ("VXMotionRecorder"), and the desktop's second
/// module, "VXSartelRecorder", through which the robot tells the desktop what
/// happens while it records. The connection registers it as a service of its
/// session and unregisters it when its interfaces go.
///
/// dataChanged(), sendReplayedToStep() and motionRecorderStopped() are called
/// by the robot on the framework's threads and only emit signals, which
/// therefore come on those threads too.
///
/// Angles are in radians, the time step in seconds.
///
/// \b Thread and \b ownership as for every interface (see MorvaneInterface):
/// it lives on the connection's worker thread and its signals come on library
/// threads, so connect them with a receiver object on the GUI thread. It is
/// new at every connection, shared by the connection and the holders of
/// ConnectionManager::recorderModule(): drop the pointer on
/// ConnectionManager::disconnected(). Its methods return at once; call them
/// from one thread (the application's).
class NIMIOB_EXPORT VXSartelRecorder
    : public QObject,
      public MorvaneInterface<MethodRecorderExecuter, ExecuterThread>
{
    Q_OBJECT

public:
    /// Passed on to the robot as an int.
    enum Mode { ModeDefault = 0 };

    /// Object name and service name.
    static const QString a_recorderModuleName;

    /// Made by the connection's worker thread, which registers it in
    /// \p session; applications take it from ConnectionManager::recorderModule().
    /// Subscribes to the robot's "store position" event through \p session's
    /// memory service.
    VXSartelRecorder(wz::Session *session, boost::shared_ptr<Connection> connection,
                     QObject *parent);
    /// Waits for the calls it started and for its executer's thread.
    ~VXSartelRecorder() override;

    /// Whether the next recording may run past its planned poses.
    void setTimeExtensionAllowed(bool allowed);
    /// Seconds between two poses of the next periodic recording (0.5 unless
    /// set).
    void setTimeStep(double seconds);
    /// The mode of the next recording.
    void setRecordingMode(Mode mode);

    /// Each pose is stored when the robot is asked to (its button).
    bool startToRecordInteractively(std::vector<std::string> jointsToRecord, int nbPoses,
                                    Mode mode);
    /// A pose every time step, while the replayed joints follow `replayData`
    /// (one list of angles of jointsToReplay per step).
    bool startToRecordPeriodically(std::vector<std::string> jointsToRecord,
                                   std::vector<std::string> jointsToReplay, VX::VXValue replayData,
                                   int nbPoses);
    /// Ends a recording that this object started, and fetches its poses
    /// (recordingReceived).
    void stopRecording();
    /// The joints being recorded; empty when none. Callable from any thread.
    QSet<QString> jointsToRecord() const;
    /// Always true: kept for the interface's sake.
    bool innerTest() const { return true; }
    /// Whether a recording started here has not been stopped here.
    bool isRecording() const { return m_recording; }

    /// Called by the robot: emits sendReplayedToStepRequested().
    void sendReplayedToStep(int stepIndex);
    /// Called by the robot when its recorder stopped: emits recordingStopped().
    void motionRecorderStopped();
    /// Called by the robot for its recorder's events: stepReceived(),
    /// recordingStopped() or storePositionRequested().
    void dataChanged(const std::string &key, const VX::VXValue &value,
                     const std::string &subscriberIdentifier);

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
    /// The robot asks to store a pose now (its button, in an interactive
    /// recording).
    void storePositionRequested();
    /// The robot's recorder stopped.
    void recordingStopped();
    /// The robot's recorder reached step \p step.
    void stepReceived(int step);
    /// The texts of a failed recording, for a dialog, beside errorOccurred()
    /// (which carries the same texts): listen to one of them.
    /// \p checkWarningEnable is always false.
    void displayErrorRequested(QString title, QString contents, QString details,
                               bool checkWarningEnable = false);
    /// [joint names, [pose, ...]] as the robot answers it.
    void recordingReceived(VX::VXValue poses);
    /// The robot asks the desktop to show the replayed joints at step
    /// \p stepIndex (from sendReplayedToStep(), on a framework thread).
    void sendReplayedToStepRequested(int stepIndex);

    /// Carries startToRecordPeriodically() to the executer's thread
    /// (\p timeStep in seconds).
    void startPeriodicRecording(std::vector<std::string> jointsToRecord, int nbPoses,
                                bool extensionAllowed, float timeStep,
                                std::vector<std::string> jointsToReplay, VX::VXValue replayData);
    /// Carries startToRecordInteractively() to the executer's thread.
    void startInteractiveRecording(std::vector<std::string> jointsToRecord, int nbPoses,
                                   bool extensionAllowed, int mode);
    /// Carries stopRecording() to the executer's thread.
    void stopAndGetRecording();

private slots:
    void onRecordingReceived(VX::VXValue poses);
    void displayErrorDialog(QString title, QString contents, QString details);

private:
    void setJoints(const std::vector<std::string> &joints);

    wz::Session *m_session;
    bool m_timeExtensionAllowed = false;
    double m_timeStep = 0.5;
    Mode m_mode = ModeDefault;
    // Written from the framework's threads and from the application's.
    mutable QMutex m_jointsMutex;
    QSet<QString> m_jointsToRecord;
    bool m_recording = false;
    // Whether the robot's "Recording" event ends the current recording: only
    // an interactive one listens to it. Read on the framework's threads.
    std::atomic<bool> m_interactive {false};
};

} // namespace RK
