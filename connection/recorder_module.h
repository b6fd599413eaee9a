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

#include <string>
#include <vector>

namespace wz {
class Session;
}

namespace RK {

class Connection;
class ExecuterThread;
class MethodRecorderExecuter;

// Motion recording on the robot ("VXMotionRecorder"), and the desktop's second
// module, "VXSartelRecorder", through which the robot tells the desktop what
// happens while it records. The connection registers it as a service of its
// session and unregisters it when its interfaces go.
//
// dataChanged, sendReplayedToStep and motionRecorderStopped run on the
// framework's threads and only emit signals.
class NIMIOB_EXPORT VXSartelRecorder
    : public QObject,
      public MorvaneInterface<MethodRecorderExecuter, ExecuterThread>
{
    Q_OBJECT

public:
    // Passed on to the robot as an int.
    enum Mode { ModeDefault = 0 };

    // Object name and service name.
    static const QString a_recorderModuleName;

    VXSartelRecorder(wz::Session *session, boost::shared_ptr<Connection> connection,
                     QObject *parent);
    ~VXSartelRecorder() override;

    void setTimeExtensionAllowed(bool allowed);
    void setTimeStep(double seconds);
    void setRecordingMode(Mode mode);

    // Each pose is stored when the robot is asked to (its button).
    bool startToRecordInteractively(std::vector<std::string> jointsToRecord, int nbPoses,
                                    Mode mode);
    // A pose every time step, while the replayed joints follow `replayData`
    // (one list of angles of jointsToReplay per step).
    bool startToRecordPeriodically(std::vector<std::string> jointsToRecord,
                                   std::vector<std::string> jointsToReplay, VX::VXValue replayData,
                                   int nbPoses);
    // Ends a recording that this object started, and fetches its poses
    // (recordingReceived).
    void stopRecording();
    QSet<QString> jointsToRecord() const;
    bool innerTest() const { return true; }
    bool isRecording() const { return m_recording; }

    // Remote methods.
    void sendReplayedToStep(int stepIndex);
    void motionRecorderStopped();
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
    void storePositionRequested();
    void recordingStopped();
    void stepReceived(int step);
    void displayErrorRequested(QString title, QString contents, QString details,
                               bool checkWarningEnable = false);
    // [joint names, [pose, ...]] as the robot answers it.
    void recordingReceived(VX::VXValue poses);
    void sendReplayedToStepRequested(int stepIndex);

    void startPeriodicRecording(std::vector<std::string> jointsToRecord, int nbPoses,
                                bool extensionAllowed, float timeStep,
                                std::vector<std::string> jointsToReplay, VX::VXValue replayData);
    void startInteractiveRecording(std::vector<std::string> jointsToRecord, int nbPoses,
                                   bool extensionAllowed, int mode);
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
};

} // namespace RK
