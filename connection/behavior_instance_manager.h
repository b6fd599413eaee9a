#pragma once

#include <connection/autonomous_life_interface.h>
#include <connection/nimiob_export.h>
#include <connection/operation_error.h>

#include <QFutureWatcher>
#include <QObject>
#include <QString>
#include <QStringList>

namespace RK {

class ConnectionManager;

// Follows one behaviour on the robot, by name, through preloading, starting,
// running and stopping. It starts a behaviour directly, or through
// autonomous life when the behaviour has a nature and life is solitary or
// interactive. Lives on the application's thread and makes no remote call of
// its own: it talks to the interface objects by signals and futures.
class NIMIOB_EXPORT BehaviorInstanceManager : public QObject
{
    Q_OBJECT

public:
    enum State {
        Missing = 0,
        Preloading = 1,
        Preloaded = 2,
        Starting = 3,
        Running = 4,
        Stopping = 5,
        Stopped = 6,
    };
    Q_ENUM(State)

    // A nature never asked for; "" means the robot has no natures.
    static const QString k_natureUndefined;

    // The third argument is not read.
    BehaviorInstanceManager(ConnectionManager *manager, const QString &behaviorName,
                            const QString &ignored, bool isKnownToBePresent);
    ~BehaviorInstanceManager() override;

    State state() const { return m_state; }
    QString behaviorName() const { return m_behaviorName; }
    // The life state the next start goes by.
    LifeState lifeState() const { return m_lifeState; }

    void preloadBehavior();
    // Ends in Running, or, when the robot refuses the start (a preload
    // error, already running), in Stopped with errorStartingBehavior and
    // errorOccurred carrying the robot's text.
    void playBehavior();
    // From Running, Stopped comes with the robot's running list; from
    // Preloading, Preloaded or Starting, once the robot has taken the stop
    // (a start still on its way is let through first), so that the next
    // preloadBehavior() is accepted.
    void stopBehavior();

    // "User/NAME" and "NAME" are the same behaviour.
    static bool sameBehavior(const QString &a, const QString &b);
    // The robot's preload error as (box, error); the box may be empty.
    static QPair<QString, QString> parsePreloadError(const QString &text);

signals:
    void stateChanged(BehaviorInstanceManager::State state);
    void errorInBox(QString box, QString error);
    void errorStartingBehavior(QString errorTitle, QString errorMessage, QString errorDetails);
    // The same failures, typed: operation "playBehavior", the code from the
    // robot's text, and the three texts of errorStartingBehavior.
    void errorOccurred(const RK::OperationError &error);

public slots:
    void onBehaviorPresent(QString behavior, bool isPresent);
    void onConnectionReady(bool isKnownToBePresent);
    void onConnectionReady();
    void onDisconnected();
    void onGotAutonomousLifeState();
    void onAutonomousLifeStateChanged(RK::LifeState newState);
    void onLifeFocusSwitched();
    void onRunningBehaviorsReceived(QStringList behaviors);
    void onBehaviorNatureReceived();
    void onBehaviorPreloaded();
    void onBehaviorAdded(QString behaviorName);
    void onBehaviorRemoved(QString behaviorName);
    void onBehaviorFailed(QString behaviorName, QString box, QString error);
    void onBehaviorStarted();

private:
    void setState(State state);
    void playBehaviorUponItsNature();
    void reportStartFailure(const QString &where, const QString &text);
    void requestStop(bool endsWhenTaken);

    QFutureWatcher<LifeState> *m_lifeStateWatcher = nullptr;
    QFutureWatcher<QString> *m_natureWatcher = nullptr;
    ConnectionManager *m_manager;
    QString m_behaviorName;
    QString m_nature;
    State m_state = Missing;
    LifeState m_lifeState = LifeStateUnknown;
    QFutureWatcher<void> *m_lifeFocusWatcher = nullptr;
    // The direct start still on its way, and a stop asked for meanwhile.
    QFutureWatcher<void> *m_startWatcher = nullptr;
    bool m_stopAfterStart = false;
};

} // namespace RK
