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

/// The general door to the robot, and the road of its events. Everything
/// here is asynchronous: the request signals are public and may be emitted
/// from any thread; they run one by one on the executer's thread.
///
/// Every micro event subscribed through subscribeToMicroEventRequested(),
/// and every watched key at each fast poll (ConnectionTiming::fastPollMs,
/// 60 ms by default), comes out of dataSubscribedChanged(); timelines,
/// speech, pose and awake state come out of their own signals. Angles are in
/// radians, stiffnesses from 0 (limp) to 1, frames are timeline frames.
///
/// \b Thread and \b ownership as for every interface (see MorvaneInterface):
/// it lives on the connection's worker thread and its signals come on library
/// threads, so connect them with a receiver object on the GUI thread. It is
/// new at every connection, shared by the connection and the holders of
/// ConnectionManager::sartelModuleInterface(): drop the pointer on
/// ConnectionManager::disconnected(). Its methods return at once and may be
/// called from any thread.
class NIMIOB_EXPORT SartelModuleInterface
    : public QObject,
      public MorvaneInterface<VXSartelExecuter, ExecuterThread>
{
    Q_OBJECT

public:
    /// Made by the connection's worker thread; applications take it from
    /// ConnectionManager::sartelModuleInterface().
    explicit SartelModuleInterface(boost::shared_ptr<Connection> connection);
    /// Waits for the calls it started and for its executer's thread.
    ~SartelModuleInterface() override;

    /// Raises the robot's event \p eventName with \p val.
    void raiseEvent(const QString &eventName, const VX::VXValue &val);
    /// Starts the two-way test on the module's thread and returns at once;
    /// the outcome comes as connectionTested, once for each call (calls made
    /// while a test is pending share its answer).
    void testConnection();
    /// The desktop module registered in the session (an internal class);
    /// shared with the connection.
    boost::shared_ptr<VXSartel> sartelModule() const;

public slots:
    /// Whether the fast poll reads the joints' angles and the torso's
    /// position (motorAnglesChanged(), torsoPositionChanged()); off at first.
    void robotPoseUpdateNeeded(bool updateNeeded);
    /// Emits displayErrorRequested(); the executer's failures come here.
    void displayErrorDialog(QString title, QString contents, QString details);
    /// Emits connectionTested(); the module's test comes here.
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
    /// Calls \p methodName of the robot's object \p proxyName with one
    /// \p param, posted: a failure comes as errorOccurred() (operation
    /// "callProxy"), and also as displayErrorRequested() when
    /// \p showDialogOnError. With \p checkEnable the object's "_isEnabled"
    /// must say true first.
    void callProxyRequested(QString proxyName, QString methodName, VX::VXValue param,
                            bool checkEnable, bool showDialogOnError);
    /// As the other callProxyRequested(), with up to six parameters.
    void callProxyRequested(QString proxyName, bool checkEnable, bool showDialogOnError,
                            QString methodName, VX::VXValue p1, VX::VXValue p2, VX::VXValue p3,
                            VX::VXValue p4, VX::VXValue p5, VX::VXValue p6);
    /// Polls the memory key \p dataName at each fast poll, into
    /// dataSubscribedChanged(); a key that cannot be read drops out.
    void addWatchedDataRequested(QString dataName);
    /// Stops polling \p dataName.
    void removeWatchedDataRequested(QString dataName);
    /// Subscribes to the robot's micro event \p name, into
    /// dataSubscribedChanged().
    void subscribeToMicroEventRequested(QString name);
    /// Undoes subscribeToMicroEventRequested().
    void unsubscribeToMicroEventRequested(QString name);
    /// subscribeToMicroEventRequested() for each name.
    void subscribeToMicroEventsRequested(QStringList nameList);
    /// unsubscribeToMicroEventRequested() for each name.
    void unsubscribeToMicroEventsRequested(QStringList nameList);
    /// Carries raiseEvent() to the executer's thread.
    void raiseEventRequested(QString eventName, VX::VXValue val);
    /// Creates the timeline \p timelineStr (the robot's text of it) on the
    /// robot in place of the current one, and follows its frame.
    void createTimelineRequested(QString timelineStr);
    /// Stops the current timeline.
    void stopCurrentTimelineRequested();
    /// Plays the current timeline.
    void playCurrentTimelineRequested();
    /// Pauses the current timeline.
    void pauseCurrentTimelineRequested();
    /// Moves the current timeline to \p frame.
    void gotoFrameCurrentTimelineRequested(int frame);
    /// Carries robotPoseUpdateNeeded() to the executer's thread.
    void robotPoseUpdateNeedChanged(bool updateNeeded);

    /// A subscribed micro event \p name was raised with \p value, or a
    /// watched key was polled.
    void dataSubscribedChanged(QString name, VX::VXValue value);
    /// The current timeline reached \p frame.
    void currentFrameChanged(int frame);
    /// The current timeline stopped.
    void currentTimelineStopped();
    /// The robot said \p sentence ("VXTextToSpeech/CurrentSentence").
    void sentenceSaid(QString sentence);
    /// The robot heard \p sentence ("WordRecognized").
    void sentenceHeard(QString sentence);
    /// The joints' angles in radians, one per name, at each fast poll while
    /// robotPoseUpdateNeeded(true).
    void motorAnglesChanged(std::vector<std::string> joints, std::vector<float> value);
    /// The joints' stiffnesses, 0 to 1, one per name, at each medium poll
    /// (ConnectionTiming::mediumPollMs, 500 ms by default).
    void motorStiffnessesChanged(std::vector<std::string> joints, std::vector<float> value);
    /// The torso's position in the world frame: x, y, z in metres, then three
    /// angles in radians; at each fast poll while robotPoseUpdateNeeded(true).
    void torsoPositionChanged(std::vector<float> value);
    /// Whether the robot is awake, at each medium poll.
    void robotStateChanged(bool isAwake);
    /// A poll of the robot failed: the link is taken as lost. The manager
    /// reacts to it; applications listen to ConnectionManager::connectionLost().
    void connectionLost();
    /// The robot asked this desktop to go.
    void disconnectRequested();
    /// The outcome of testConnection(): whether the robot reached this
    /// desktop's module.
    void connectionTested(bool success);
    /// The texts of a failure, for a dialog, beside errorOccurred() (which
    /// carries the same texts): listen to one of them. \p checkWarningEnable is
    /// always false.
    void displayErrorRequested(QString title, QString contents, QString details,
                               bool checkWarningEnable = false);
};

} // namespace RK
