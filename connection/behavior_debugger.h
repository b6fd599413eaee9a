#pragma once

#include <connection/behavior_instance_manager.h>
#include <connection/meta_types.h>
#include <connection/nimiob_export.h>
#include <connection/operation_error.h>
#include <connection/timeline_player.h>

#include <QMap>
#include <QPointer>
#include <QRegularExpression>
#include <QString>
#include <QStringList>

namespace RK {

class ConnectionManager;

/// Runs the behaviour being edited on the robot: loads it, starts and stops
/// it, shows which inputs and outputs of which box fire (IOActivated()),
/// follows its timeline's frame, and fires inputs, outputs and box
/// parameters. It works through its own BehaviorInstanceManager, the
/// behaviour manager interface and the desktop module interface, which it
/// asks the ConnectionManager for at each use.
///
/// \b Thread: lives on the application's thread, with the manager; its
/// signals are emitted there and its methods are called from there only.
/// \b Ownership: the application's (or \p parent's); it outlives
/// connections: when the connection goes it says stopped() and
/// behaviorStopped() and forgets the behaviour, and initialize() starts
/// again after a reconnection. The manager must outlive it.
class NIMIOB_EXPORT BehaviorDebugger : public TimelinePlayer
{
    Q_OBJECT

public:
    /// A debugger working through \p manager, owned by \p parent.
    BehaviorDebugger(ConnectionManager *manager, QObject *parent = nullptr);
    /// Lets go of the behaviour instance (deleted later on its thread).
    ~BehaviorDebugger() override;

    /// A new instance for the behaviour \p behaviorName (its path in the
    /// robot's behaviour store); one that exists is cleared first. Loads it
    /// at once when the robot knows it stopped.
    void initialize(QString behaviorName);
    /// Preloads the behaviour on the robot; behaviorLoading(), then
    /// behaviorLoaded() once its frame-manager id is known, or
    /// errorOccurred() with the operation "loadBehavior" when the robot
    /// gives no id (the behaviour then stays preloaded).
    void loadBehavior();
    /// Starts the behaviour; started(), then behaviorStarted().
    void startBehavior();
    /// Stops the behaviour; stopped(), then behaviorStopped().
    void stopBehavior();
    /// Whether the behaviour is starting or running.
    bool isRunning();

    /// The behaviour's frame-manager id, empty until it is loaded.
    QString frameManagerId() const { return m_fmId; }
    /// The instance made by initialize(), owned by this debugger; null
    /// before initialize() and after the connection went.
    BehaviorInstanceManager *instance() const { return m_instance; }
    /// Event names subscribed now (the id followed by each input or output).
    QStringList subscribedEvents() const { return m_subscribed; }
    /// The polled timeline key, empty when none.
    QString frameKey() const { return m_frameKey; }

    /// Whether initialize() made an instance that still exists.
    bool isStarted() override;
    /// True while running: what the timeline view expects of this player.
    bool isPaused() override;
    /// Whether there is no instance, or it is stopped or missing.
    bool isStopped() override;
    /// As set by enable(); true at first.
    bool isEnabled() override;
    /// Does nothing: stopBehavior() stops the behaviour.
    void stop() override;
    /// Sets isEnabled(); enabledChanged() both ways follow a change.
    void enable(bool enabled) override;
    /// The last frame the robot's timeline reported; -1 before any.
    int getCurrentFrame() override;
    /// Does nothing: the robot's timeline sets the frame.
    void setCurrentFrame(int frame) override;
    /// Does nothing: the robot's timeline sets the frame.
    void gotoFrame(int frame) override;

signals:
    /// The behaviour is being preloaded.
    void behaviorLoading();
    /// The behaviour is loaded and its frame-manager id known: its inputs
    /// and outputs can be followed (setLevel()).
    void behaviorLoaded();
    /// The behaviour runs.
    void behaviorStarted();
    /// The behaviour stopped, was removed, or the connection went.
    void behaviorStopped();
    /// An input or output \p name ("box__output") fired, with \p value as
    /// text (empty for a bang, and for a call made from here).
    void IOActivated(QString name, QString value);
    /// The box named \p box reported \p error.
    void errorInBox(QString box, QString error);
    /// The robot refused to start the behaviour: the three texts of a dialog.
    void errorStartingBehavior(QString errorTitle, QString errorMessage, QString errorDetails);
    /// The instance's failures, typed, with the operation "startBehavior": a
    /// refused start ends in behaviorStopped() after this. A load without a
    /// frame-manager id comes with the operation "loadBehavior".
    void errorOccurred(const RK::OperationError &error);

public slots:
    /// Follows the inputs and outputs \p ios (names below the behaviour,
    /// "box__output") and the timeline whose frame key is \p timelinePath
    /// (empty: none); applied now when loaded, else at the load.
    void setLevel(QStringList ios, QString timelinePath);
    /// Sets each parameter of the box \p boxName ("setParameter" on the
    /// box) to its value.
    void sendParameterValues(QString boxName, QMap<QString, VX::VXValue> paramValues);
    /// Calls \p methodName of the box \p boxName with one \p value; nothing
    /// before the behaviour is loaded. \p checkEnable and
    /// \p showDialogOnError go to the desktop module's call.
    void callBox(QString boxName, QString methodName, VX::VXValue value, bool checkEnable,
                 bool showDialogOnError);
    /// Calls \p methodName of the box \p boxName with up to six parameters;
    /// nothing before the behaviour is loaded.
    void callBox(QString boxName, bool checkEnable, bool showDialogOnError, QString methodName,
                 VX::VXValue parameter1 = VX::VXValue(), VX::VXValue parameter2 = VX::VXValue(),
                 VX::VXValue parameter3 = VX::VXValue(), VX::VXValue parameter4 = VX::VXValue(),
                 VX::VXValue parameter5 = VX::VXValue(), VX::VXValue parameter6 = VX::VXValue());
    /// Fires the output \p outputMethodName of the box \p boxName with
    /// \p value.
    void callBoxOutput(QString boxName, QString outputMethodName, VX::VXValue value);
    /// Follows the instance's state; connected by initialize().
    void onStateChanged(BehaviorInstanceManager::State state);
    /// Takes the frame-manager id of the loaded behaviour; connected while
    /// one is asked for.
    void onBehaviorFrameManagerIdReceived(QString behaviorName, QString id);
    /// A failed frame-manager id request ends the load that waits for it;
    /// connected while one is asked for.
    void onBehaviorManagerError(const RK::OperationError &error);
    /// Listens to the new connection's desktop module; connected to the
    /// manager's connectionEstablished().
    void onConnectionEstablished();
    /// Forgets the behaviour; connected to the manager's disconnected().
    void onConnectionInterrupted();
    /// A watched value changed: the timeline's frame, or an input or output.
    void onDataChanged(QString name, VX::VXValue value);

private:
    void updateWatchedValues();
    // Lets go of what was subscribed and polled on the robot.
    void releaseWatchedValues();
    void requestFrameManagerId();
    // Stops listening for the id; true when one was awaited.
    bool endIdRequest();
    void reportLoadFailure(const QString &details);
    void clear();

    ConnectionManager *m_manager;
    QPointer<BehaviorInstanceManager> m_instance;
    QStringList m_ios;
    QStringList m_subscribed;
    QString m_fmId;
    QString m_timelinePath;
    QString m_frameKey;
    int m_currentFrame = -1;
    bool m_enabled = true;
    bool m_idRequested = false;
    BehaviorInstanceManager::State m_lastState = BehaviorInstanceManager::Missing;
    // The id with its pattern characters escaped, anchored at the start;
    // compiled once per load, since every box event is matched against it.
    QRegularExpression m_fmIdPattern;
};

} // namespace RK
