#pragma once

/// \file
/// RK::ConnectionManager, the one object through which an application reaches a robot.

// First, so that the types it declares are declared before any signal uses them.
#include <connection/connection_timing.h>
#include <connection/meta_types.h>
#include <connection/nimiob_export.h>

#include <QObject>
#include <QString>
#include <QStringList>

#include <boost/shared_ptr.hpp>

#include <memory>
#include <string>

namespace wz {
class Session;
}

namespace RK {

class Connection;
class ConnectionManagerPrivate;
class ReconnectionManager;
class MemoryInterface;
class SartelModuleInterface;
class VXSartelRecorder;
class RobotStateReceiver;
class VideoDeviceInterface;
class ResourcesInterface;
class BehaviorManagerInterface;
class ConfigInterface;
class LogListenerInterface;
class AudioInterface;
class AnimatedSpeechInterface;
class BatteryInterface;
class LauncherInterface;
class RobotPostureInterface;
class DialogInterface;
class WorldRepresentationInterface;
class PackageManagerInterface;
class EngagementZonesInterface;
class AutonomousLifeInterface;
class PeoplePerceptionInterface;
class BasicAwarenessInterface;

/// The one object through which the application reaches a robot.
///
/// **Thread.** It lives on the GUI thread: the thread that made it, which must
/// be the application's main thread. Call it only there; its signals arrive
/// there. Every slow step runs on a connection worker, and results come back
/// as signals, so no call here waits on the network.
///
/// **Ownership.** The application makes it and owns it (a QObject parent
/// will do). It owns the ReconnectionManager and every worker thread.
///
/// **A connection's life.** The interface objects (memoryInterface() and the
/// other accessors) are new at every connection: take them, and connect to
/// their signals, again on each connectionEstablished(); drop them on
/// disconnected(). They live on the connection's worker thread, so connect
/// to their signals with a context object on your thread (a lambda connected
/// without one runs on the worker):
///
/// \code
/// RK::ConnectionManager *manager = new RK::ConnectionManager(&app);
/// QObject::connect(manager, &RK::ConnectionManager::connectionEstablished, window, [=] {
///     battery = manager->batteryInterface(); // may be null: test it
///     if (!battery)
///         return;
///     // The charge in percent, queued to the window's thread.
///     QObject::connect(battery.get(), &RK::BatteryInterface::updateBatteryLevelRequested,
///                      window, &Window::showBattery);
///     battery->getBatteryLevel();
/// });
/// QObject::connect(manager, &RK::ConnectionManager::disconnected, window,
///                  [&] { battery.reset(); });
/// QObject::connect(manager, &RK::ConnectionManager::displayErrorRequested, window,
///                  &Window::showError);
/// manager->connectRemoteBroker("192.168.1.12", 9559, "Lab robot");
/// \endcode
///
/// **Shutting down.** Teardown never waits on the robot: it closes the
/// session, which ends every remote call still pending with "connection
/// lost", and only then joins the library's threads. Either leave and keep
/// running:
///
/// \code
/// // The robot has seen the desktop go once teardownFinished() has come.
/// QObject::connect(manager, &RK::ConnectionManager::teardownFinished, &app, [] { ... });
/// manager->disconnectBroker();
/// \endcode
///
/// or simply destroy it before main() returns:
///
/// \code
/// battery.reset(); // interface objects the application still holds, first
/// delete manager;  // or let its parent or scope end it
/// \endcode
///
/// The destructor does the whole teardown itself, on the calling thread, in
/// a bounded time whatever the robot does (well under a second on a robot
/// that no longer answers): when it returns, no worker or executer thread of
/// the library is left running. Only interface objects that the application
/// still holds keep their executer's thread until it lets go of them, so
/// drop them first.
class NIMIOB_EXPORT ConnectionManager : public QObject
{
    Q_OBJECT

public:
    /// Makes the manager on the calling thread, which must be the
    /// application's main thread; \a parent may own it.
    explicit ConnectionManager(QObject *parent = nullptr);
    /// The whole teardown, here and now (see the class description): every
    /// session closes at once and every thread of the library is joined
    /// before this returns.
    ~ConnectionManager() override;

    /// Starts an attempt to connect to the robot at \a address (a host name
    /// or IP address) and \a port (its TCP port), shown under \a name, and
    /// returns at once. The outcome comes as connectionEstablished(), or as
    /// displayErrorRequested() followed by disconnected().
    ///
    /// Refused, with displayErrorRequested() and nothing else changed, while
    /// a connection to the same address and port is open or being made (a
    /// double click), and while ten workers are alive. An attempt abandoned
    /// by a disconnection ends at once and frees its place.
    void connectRemoteBroker(const std::string &address, int port, const QString &name);
    /// The same, with the address as the name.
    void connectRemoteBroker(const std::string &address, int port);
    /// Leaves the robot at the application's wish, and returns at once:
    /// disconnected() comes at once, teardownFinished() when every session
    /// has closed. Pending remote calls end with "connection lost"; the robot
    /// is given ConnectionTiming::unregisterLimitMs to drop the desktop's
    /// services. wasDisconnectionRequested() is true afterwards.
    void disconnectBroker();
    /// The teardown that disconnectBroker() runs, without marking it as
    /// wished for: what a lost session or a failed attempt runs. Applications
    /// call disconnectBroker().
    void destroyConnection();
    /// Reports the missing services of the current connection through
    /// displayErrorRequested() (with \c checkWarningEnable true), when a
    /// required one is missing; says nothing when all required ones are
    /// bound. Without a connection it only logs a warning.
    void checkAvailableModules();

    /// The time limits and delays: ConnectionTiming.
    using Timing = ConnectionTiming;
    /// Sets the time limits of the attempts started from now on (readiness,
    /// the two-way test, pose polling, teardown), and the reconnection
    /// countdown's delays, which apply at its next start.
    void setTiming(const Timing &timing);
    /// The time limits set by setTiming(), or the defaults.
    const Timing &timing() const;

    /// True while a connection is established and ready.
    bool isConnected() const;
    /// True from connectRemoteBroker() until the attempt has succeeded or
    /// failed; connecting() tells each change.
    bool isConnecting() const;
    /// True while a connection is being made or closed on a worker: after
    /// disconnected(), the session is closed only once this turns false,
    /// which teardownFinished() tells.
    bool hasActiveWorkers() const;
    /// True from construction and after disconnectBroker(); false from the
    /// moment an attempt has succeeded. After disconnected() it tells a wish
    /// (true) from a loss or a failure (false).
    bool wasDisconnectionRequested() const;
    /// Copies the current connection's address and TCP port into \a ip and
    /// \a port and returns true; returns false, leaving them untouched,
    /// without a connection.
    bool getCurrentConnection(QString &ip, int &port) const;
    /// The same, and the connection's \a name.
    bool getCurrentConnection(QString &ip, int &port, QString &name) const;
    /// The robot's file server, for project transfers: its address in ASCII
    /// and its TCP port. \a port is 0 on a robot without a package manager,
    /// which has no file server. Returns false, leaving them untouched,
    /// without a connection.
    bool getCurrentConnectionHttp(std::string &ip, int &port) const;
    /// The address, port and name of the last attempt, with or without a
    /// connection (empty, 0 and empty before any attempt).
    void getLastConnectionInfo(QString &ip, int &port, QString &name) const;
    /// True if \a ip and \a port are those of the current connection; false
    /// without a connection.
    bool match(const QString &ip, int port) const;
    /// True if the current robot lists a "DCM" service; false without a connection.
    bool currentConnectionHasDCM() const;
    /// True if the current robot offers "VXAudioDevice"; false without a connection.
    bool currentConnectionHasAudioDevice() const;
    /// Compares this application's version (QCoreApplication::applicationVersion())
    /// with the robot's runtime, and gives both in \a clientVersion and
    /// \a robotVersion. True when their first two fields match (a difference
    /// in the third is logged); false without a connection, leaving the
    /// arguments untouched.
    bool checkMorvaneCompatibility(QString &clientVersion, QString &robotVersion) const;
    /// The robot runtime's version text; empty without a connection.
    QString morvaneVersion() const;
    /// Always false: no restart of the robot's runtime is offered.
    bool isMorvaneRestartPossible() const;
    /// The remote services bound on the current connection, by their remote
    /// names ("VXMemory", ...), in binding order; empty without a connection.
    QStringList boundServices() const;
    /// The remote services the current robot lacks, in binding order; empty
    /// without a connection.
    QStringList missingServices() const;

    /// The reconnection countdown, owned by this manager and living on the
    /// GUI thread; valid as long as the manager. The application starts it on
    /// connectionLost() and cancels it on connectionEstablished().
    ReconnectionManager *reconnectionManager() const;

    /// \name Interface objects
    /// Each accessor gives the current connection's object, or null without a
    /// connection or when the robot lacks its service: test for null. The
    /// objects are new at every connection and live on the connection's worker
    /// thread; hold them by the shared pointer, and drop them on
    /// disconnected() so that their threads can end.
    ///@{

    /// Joint angles, stiffness, torso, wake up and rest.
    boost::shared_ptr<RobotStateReceiver> robotStateReceiver() const;
    /// The camera; null when the robot has none.
    boost::shared_ptr<VideoDeviceInterface> videoDeviceInterface() const;
    /// The robot's resources.
    boost::shared_ptr<ResourcesInterface> resourcesInterface() const;
    /// Behaviours: list, install, start, stop.
    boost::shared_ptr<BehaviorManagerInterface> behaviorManagerInterface() const;
    /// The robot's memory: keys, values, watched keys.
    boost::shared_ptr<MemoryInterface> memoryInterface() const;
    /// The robot's model and configuration.
    boost::shared_ptr<ConfigInterface> configInterface() const;
    /// The general door to the robot: calls by name, micro events, timelines.
    boost::shared_ptr<SartelModuleInterface> sartelModuleInterface() const;
    /// The desktop's recorder service, which the robot calls back.
    boost::shared_ptr<VXSartelRecorder> recorderModule() const;
    /// Sound devices.
    boost::shared_ptr<AudioInterface> audioInterface() const;
    /// Speech with gestures.
    boost::shared_ptr<AnimatedSpeechInterface> animatedSpeechInterface() const;
    /// Battery charge.
    boost::shared_ptr<BatteryInterface> batteryInterface() const;
    /// Launcher of the robot's programs.
    boost::shared_ptr<LauncherInterface> launcherInterface() const;
    /// Dialog; null when the robot has no dialog service.
    boost::shared_ptr<DialogInterface> dialogInterface() const;
    /// Application packages; null when the robot has no package manager.
    boost::shared_ptr<PackageManagerInterface> packageManagerInterface() const;
    /// The robot's autonomous mode; null when the robot does not offer it.
    boost::shared_ptr<AutonomousLifeInterface> autonomousLifeInterface() const;
    /// What the robot knows of objects; null without that service.
    boost::shared_ptr<WorldRepresentationInterface> worldRepresentationInterface() const;
    /// The robot's log.
    boost::shared_ptr<LogListenerInterface> logListenerInterface() const;
    /// Postures; null without that service.
    boost::shared_ptr<RobotPostureInterface> robotPostureInterface() const;
    /// Engagement zones; null without that service.
    boost::shared_ptr<EngagementZonesInterface> engagementZonesInterface() const;
    /// People the robot perceives; null without that service.
    boost::shared_ptr<PeoplePerceptionInterface> peoplePerceptionInterface() const;
    /// Basic awareness; null without that service.
    boost::shared_ptr<BasicAwarenessInterface> basicAwarenessInterface() const;
    ///@}

signals:
    /// The connecting flag changed: \a isConnecting true when an attempt
    /// starts, false when it has succeeded or failed.
    void connecting(bool isConnecting);
    /// An attempt has succeeded: take the interface objects now.
    void connectionEstablished();
    /// The two-way test's outcome, some time after connectionEstablished():
    /// \a success false when the robot could not call the desktop back within
    /// ConnectionTiming::connectionTestLimitMs.
    void connectionTested(bool success);
    /// At the end of every teardown (wished, lost, or a failed attempt): stop
    /// using the interface objects and drop them.
    void disconnected();
    /// After disconnected(), only when the session ended by itself; not for
    /// a session the application had already let go (disconnectBroker(), or a
    /// newer connection), whose end may be noticed just after.
    void connectionLost();
    /// Every worker has ended and every session it held is closed, so the
    /// robot has seen this desktop leave.
    void teardownFinished();
    /// An error to show the user: \a title, \a contents and \a details are
    /// translated texts; \a checkWarningEnable is true only for the report of
    /// checkAvailableModules().
    void displayErrorRequested(QString title, QString contents, QString details,
                               bool checkWarningEnable = false);

public slots:
    /// Kept for applications that call it; it has no effect, as
    /// isMorvaneRestartPossible() is always false.
    void onMorvaneRestartNeeded();
    /// The session ended by itself with \a error as its reason: teardown,
    /// disconnected(), then connectionLost(). Called by the library.
    void onSessionDisconnected(std::string error);
    /// An attempt failed; the workers have reported why. Called by the library.
    void onConnectionFailed();
    /// An attempt succeeded with \a session and \a connection. Called by the
    /// library's workers, never by the application.
    void onConnectionCreated(boost::shared_ptr<wz::Session> session,
                             boost::shared_ptr<RK::Connection> connection);

private:
    friend class ConnectionManagerPrivate;
    const std::unique_ptr<ConnectionManagerPrivate> d;
};

} // namespace RK
