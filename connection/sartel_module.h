#pragma once

#include <connection/operation_error.h>

#include <connection/meta_types.h>
#include <connection/morvane_interface.h>
#include <connection/nimiob_export.h>

#include <QObject>
#include <QString>
#include <QStringList>

#include <boost/shared_ptr.hpp>

#include <vx/vxvalue.h>

#include <string>
#include <vector>

namespace RK {

class Connection;
class VXSartel;
class VXSartelExecuter;
class ExecuterThread;

// The general door to the robot, and the road of its events. Everything
// here is asynchronous: the request signals are public and may be emitted
// from any thread; they run one by one on the executer's thread.
//
// Every micro event subscribed through subscribeToMicroEventRequested, and
// every watched key at each 60 ms poll, comes out of dataSubscribedChanged;
// timelines, speech, pose and awake state come out of their own signals.
class NIMIOB_EXPORT SartelModuleInterface
    : public QObject,
      public MorvaneInterface<VXSartelExecuter, ExecuterThread>
{
    Q_OBJECT

public:
    explicit SartelModuleInterface(boost::shared_ptr<Connection> connection);
    ~SartelModuleInterface() override;

    void raiseEvent(const QString &eventName, const VX::VXValue &val);
    // Starts the two-way test on the module's thread and returns at once;
    // the outcome comes as connectionTested.
    void testConnection();
    boost::shared_ptr<VXSartel> sartelModule() const;

public slots:
    void robotPoseUpdateNeeded(bool updateNeeded);
    void displayErrorDialog(QString title, QString contents, QString details);
    void onConnectionTested(bool success);

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
    // Requests.
    void callProxyRequested(QString proxyName, QString methodName, VX::VXValue param,
                            bool checkEnable, bool showDialogOnError);
    void callProxyRequested(QString proxyName, bool checkEnable, bool showDialogOnError,
                            QString methodName, VX::VXValue p1, VX::VXValue p2, VX::VXValue p3,
                            VX::VXValue p4, VX::VXValue p5, VX::VXValue p6);
    void addWatchedDataRequested(QString dataName);
    void removeWatchedDataRequested(QString dataName);
    void subscribeToMicroEventRequested(QString name);
    void unsubscribeToMicroEventRequested(QString name);
    void subscribeToMicroEventsRequested(QStringList nameList);
    void unsubscribeToMicroEventsRequested(QStringList nameList);
    void raiseEventRequested(QString eventName, VX::VXValue val);
    void createTimelineRequested(QString timelineStr);
    void stopCurrentTimelineRequested();
    void playCurrentTimelineRequested();
    void pauseCurrentTimelineRequested();
    void gotoFrameCurrentTimelineRequested(int frame);
    void robotPoseUpdateNeedChanged(bool updateNeeded);

    // Events and results.
    void dataSubscribedChanged(QString name, VX::VXValue value);
    void currentFrameChanged(int frame);
    void currentTimelineStopped();
    void sentenceSaid(QString sentence);
    void sentenceHeard(QString sentence);
    void motorAnglesChanged(std::vector<std::string> joints, std::vector<float> value);
    void motorStiffnessesChanged(std::vector<std::string> joints, std::vector<float> value);
    void torsoPositionChanged(std::vector<float> value);
    void robotStateChanged(bool isAwake);
    void connectionLost();
    void disconnectRequested();
    void connectionTested(bool success);
    void displayErrorRequested(QString title, QString contents, QString details,
                               bool checkWarningEnable = false);
};

} // namespace RK
