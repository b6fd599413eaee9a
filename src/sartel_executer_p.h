#pragma once

#include <connection/operation_error.h>

#include <connection/meta_types.h>

#include <QObject>
#include <QString>
#include <QStringList>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <vx/vxvalue.h>

#include <memory>
#include <string>
#include <vector>

class QTimer;

namespace VX {
class VXMotionProxy;
class VXProxy;
} // namespace VX

namespace RK {

class Connection;
class EventRelay;
struct ConnectionTiming;
class VXSartel;
class PostedCallWatch;
template<typename Executer>
class ExecuterCall;

// The executer of RK::SartelModuleInterface, on its own thread: calls by
// name, micro event subscriptions, watched keys, pose polling and the
// current timeline. It owns the desktop module the robot calls back
// (RK::VXSartel) and registers it in the session for its lifetime.
class VXSartelExecuter : public QObject
{
    Q_OBJECT

public:
    static const QString a_sentenceSaidSTMName;
    static const QString a_sentenceHeardSTMName;

    // Builds and registers the module; a failed registration throws, which
    // fails the connection.
    explicit VXSartelExecuter(boost::shared_ptr<Connection> connection);
    // Unregisters the module while the session lasts, then stops the current
    // timeline.
    ~VXSartelExecuter() override;

    boost::shared_ptr<VXSartel> module() const { return m_module; }
    // Events to onDataChanged on the executer's thread, batched; from any thread.
    std::shared_ptr<EventRelay> eventRelay() const { return m_events; }

    // The polling steps the timers run; on the executer's thread only.
    void updateJointAngles();
    void updateJointStiffness();
    void updateTorsoPosition();
    void updateDataPolled();
    // Stops the timers; for the end of the executer's thread.
    void stopPolling();

public slots:
    // Fire-and-forget call of `methodName` on the robot's module `proxyName`.
    bool callProxy(QString proxyName, QString methodName, VX::VXValue param, bool checkEnable,
                   bool showDialogOnError);
    // The same with up to six values: those up to the first invalid one go out.
    bool callProxy(QString proxyName, bool checkEnable, bool showDialogOnError, QString methodName,
                   VX::VXValue param1 = VX::VXValue(), VX::VXValue param2 = VX::VXValue(),
                   VX::VXValue param3 = VX::VXValue(), VX::VXValue param4 = VX::VXValue(),
                   VX::VXValue param5 = VX::VXValue(), VX::VXValue param6 = VX::VXValue());
    void addWatchedData(QString dataName);
    void removeWatchedData(QString dataName);
    void subscribeToMicroEvent(QString name);
    void unsubscribeToMicroEvent(QString name);
    void subscribeToMicroEvents(QStringList nameList);
    void unsubscribeToMicroEvents(QStringList nameList);
    void raiseEvent(QString eventName, VX::VXValue val);
    void onDataChanged(QString name, VX::VXValue value);

    void createTimeline(QString timelineStr);
    void stopCurrentTimeline();
    void playCurrentTimeline();
    void pauseCurrentTimeline();
    void gotoFrameCurrentTimeline(int frame);

    void setRobotPoseUpdateNeeded(bool updateNeeded);
    void onFastTimeout();
    void onMediumTimeout();

signals:
    // Each failed operation, once; its interface forwards it.
    void errorOccurred(const RK::OperationError &error);
    void error(QString title, QString contents, QString details);
    void currentFrameChanged(int frame);
    void currentTimelineStopped();
    void sentenceSaid(QString sentence);
    void sentenceHeard(QString sentence);
    void motorAnglesChanged(std::vector<std::string> joints, std::vector<float> value);
    void motorStiffnessesChanged(std::vector<std::string> joints, std::vector<float> value);
    void torsoPositionChanged(std::vector<float> value);
    void robotStateChanged(bool isAwake);
    void dataSubscribedChanged(QString name, VX::VXValue value);
    void connectionLost();

private:
    void initPollingTimers(const ConnectionTiming &timing);
    void onCallFailed(const QString &proxyName, const QString &methodName, const VX::VXValue &param,
                      const QString &error);
    // Fills the joint names once; throws when neither question is answered.
    void ensureJointNames(VX::VXMotionProxy &motion);
    void reportLostConnection(const std::exception &e);
    // The executer's route carries only the names onDataChanged acts on: a
    // burst of other events then costs its thread nothing.
    void updateEventFilter();
    // A call by name: the module looked up, its "enabled" question asked
    // when wanted, then `post` sends the call.
    template<typename Post>
    bool callByName(const QString &proxyName, const QString &methodName, const char *enabledMethod,
                    bool checkEnable, bool showDialogOnError, Post post);
    ExecuterCall<VXSartelExecuter> timelineCall(const char *operation, const QString &contents);
    // `publishes`: the robot shows a frame of the timeline again.
    void timelineCommand(const char *operation, const QString &contents, const char *method,
                         bool publishes);
    void watchCurrentTimeline();
    // Forgets the current timeline, here and on the robot.
    void dropTimeline(VX::VXProxy &frameManager, Connection &connection);

    boost::weak_ptr<Connection> m_connection;
    std::unique_ptr<PostedCallWatch> m_posted;
    bool m_destroying = false;
    QString m_currentTimeline;
    QStringList m_watchedData;
    boost::shared_ptr<VXSartel> m_module;
    std::shared_ptr<EventRelay> m_events;
    unsigned int m_moduleServiceId = 0;
    int m_lastFrame = -1;
    std::vector<std::string> m_jointNames;
    bool m_robotPoseUpdateNeeded = false;
    QTimer *m_fastTimer = nullptr;
    QTimer *m_mediumTimer = nullptr;
    QTimer *m_slowTimer = nullptr;
};

} // namespace RK
