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

/// Follows one behaviour on the robot, by name, through preloading, starting,
/// running and stopping. It starts a behaviour directly, or through
/// autonomous life when the behaviour has a nature and life is solitary or
/// interactive. It makes no remote call of its own: it talks to the
/// interface objects by signals and futures.
///
/// \b Thread: lives on the application's thread, with the manager; its
/// signals are emitted there and its methods are called from there only.
///
/// \b Ownership: unlike the interface objects, it belongs to the
/// application and lives across connections: it takes no QObject parent, so
/// the application deletes it (or keeps it in a smart pointer). On
/// ConnectionManager::disconnected() its state becomes Missing; on
/// ConnectionManager::connectionEstablished() it finds the new interfaces by
/// itself and asks the robot again. The manager must outlive it.
///
/// \code
/// auto behavior = std::make_unique<RK::BehaviorInstanceManager>(
///     manager, "User/hello", QString(), false);
/// connect(behavior.get(), &RK::BehaviorInstanceManager::stateChanged, this, &Panel::showState);
/// behavior->playBehavior();        // ... Starting, Running
/// \endcode
class NIMIOB_EXPORT BehaviorInstanceManager : public QObject
{
    Q_OBJECT

public:
    /// Where the behaviour stands on the robot, as far as this object knows.
    enum State {
        /// Not known to be on the robot: not connected, not found, or
        /// removed.
        Missing = 0,
        /// preloadBehavior() asked; the robot is loading it.
        Preloading = 1,
        /// Loaded on the robot, not running.
        Preloaded = 2,
        /// A start was asked for; not yet running.
        Starting = 3,
        /// In the robot's running list.
        Running = 4,
        /// A stop was asked for; not yet taken.
        Stopping = 5,
        /// On the robot and not running.
        Stopped = 6,
    };
    Q_ENUM(State)

    /// A nature never asked for; "" means the robot has no natures.
    static const QString k_natureUndefined;

    /// Follows the behaviour \p behaviorName (its path in the robot's
    /// behaviour store, "User/" optional) through \p manager. The third
    /// argument is not read: any text will do. \p isKnownToBePresent spares
    /// the robot the question whether the behaviour exists. There is no
    /// parent argument: see the class.
    BehaviorInstanceManager(ConnectionManager *manager, const QString &behaviorName,
                            const QString &ignored, bool isKnownToBePresent);
    /// Stops following; a start or stop on its way is not waited for.
    ~BehaviorInstanceManager() override;

    /// The behaviour's state now.
    State state() const { return m_state; }
    /// The name given to the constructor.
    QString behaviorName() const { return m_behaviorName; }
    /// The life state the next start goes by.
    LifeState lifeState() const { return m_lifeState; }

    /// Loads the behaviour on the robot: Preloading, then Preloaded (or
    /// Missing with errorInBox() when a box fails to load).
    void preloadBehavior();
    /// Ends in Running, or, when the robot refuses the start (a preload
    /// error, already running), in Stopped with errorStartingBehavior and
    /// errorOccurred carrying the robot's text. Ignored, with a log line,
    /// while a start asked for earlier is still on its way.
    void playBehavior();
    /// From Running, Stopped comes with the robot's running list; from
    /// Preloading or Preloaded, once the robot has taken the stop, so that
    /// the next preloadBehavior() is accepted. From Starting, the start or
    /// focus switch on its way is let through first: if the robot refuses
    /// it, Stopped comes at once; if the behaviour started, the stop follows
    /// and Stopped comes with the robot's list, as from Running. A stop the
    /// robot refuses takes a running behaviour back to Running (the
    /// interface's errorOccurred tells why).
    void stopBehavior();

    /// "User/NAME" and "NAME" are the same behaviour.
    static bool sameBehavior(const QString &a, const QString &b);
    /// The robot's preload error as (box, error); the box may be empty.
    static QPair<QString, QString> parsePreloadError(const QString &text);

signals:
    /// state() changed to \p state.
    void stateChanged(BehaviorInstanceManager::State state);
    /// The box \p box of the behaviour failed with \p error, while loading
    /// or running.
    void errorInBox(QString box, QString error);
    /// The behaviour could not be started (or was not found): the three
    /// texts of a dialog.
    void errorStartingBehavior(QString errorTitle, QString errorMessage, QString errorDetails);
    /// The same failures, typed: operation "playBehavior", the code from the
    /// robot's text, and the three texts of errorStartingBehavior.
    void errorOccurred(const RK::OperationError &error);

    // The slots below are this object's own wiring to the interfaces and the
    // manager; an application calls none of them.
public slots:
    /// The robot's answer whether \p behavior exists.
    void onBehaviorPresent(QString behavior, bool isPresent);
    /// Takes the new connection's interfaces and asks the robot again.
    void onConnectionReady(bool isKnownToBePresent);
    /// onConnectionReady(false); connected to connectionEstablished().
    void onConnectionReady();
    /// The state becomes Missing; connected to disconnected().
    void onDisconnected();
    /// The life state's future finished.
    void onGotAutonomousLifeState();
    /// Autonomous life changed state.
    void onAutonomousLifeStateChanged(RK::LifeState newState);
    /// The focus's future finished: the start through autonomous life ended.
    void onLifeFocusSwitched();
    /// The robot's running behaviours: Running or Stopped follows.
    void onRunningBehaviorsReceived(QStringList behaviors);
    /// The nature's future finished: the start goes on.
    void onBehaviorNatureReceived();
    /// The preload's future finished.
    void onBehaviorPreloaded();
    /// A behaviour was installed on the robot.
    void onBehaviorAdded(QString behaviorName);
    /// A behaviour was removed from the robot.
    void onBehaviorRemoved(QString behaviorName);
    /// A box of a behaviour failed.
    void onBehaviorFailed(QString behaviorName, QString box, QString error);
    /// The direct start's future finished.
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
    // The direct start still on its way, and a stop asked for meanwhile or
    // during a focus switch.
    QFutureWatcher<void> *m_startWatcher = nullptr;
    bool m_stopAfterStart = false;
};

} // namespace RK
