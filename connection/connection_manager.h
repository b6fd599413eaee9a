#pragma once

#include <connection/connection.h>
#include <connection/connection_timing.h>
#include <connection/nimiob_export.h>

#include <QObject>
#include <QString>

#include <boost/shared_ptr.hpp>

#include <wz/signal.h>

#include <string>

namespace wz {
class Session;
}

namespace RK {

class ConnectionThreadsManager;
class ReconnectionManager;

// The one object through which the application reaches a robot. Lives on the
// GUI thread (the thread that made it, which must be the application's main
// thread); every slow step runs on a connection worker, and results come
// back as signals. The application owns it.
//
// Shutting down. Teardown never waits on the robot: it closes the session,
// which ends every remote call still pending with "connection lost", and
// only then joins the library's threads. Either
//
//   // Leave, and keep running: the robot sees the desktop go once
//   // teardownFinished() has come.
//   QObject::connect(manager, &RK::ConnectionManager::teardownFinished, [] { ... });
//   manager->disconnectBroker();
//
// or simply
//
//   delete manager; // or let it go out of scope before main() returns
//
// The destructor does the whole teardown itself, on the calling thread, in a
// bounded time whatever the robot does (well under a second on a robot that
// no longer answers): when it returns, no worker or executer thread of the
// library is left running. Only interface objects that the application
// still holds keep their executer's thread until it lets go of them, so
// drop them first. Quitting without disconnectBroker() is therefore safe
// as long as the manager is destroyed before main() returns.
//
// destroyConnection() is the teardown without the "requested" flag: it is
// what a lost connection runs. Applications call disconnectBroker().
class NIMIOB_EXPORT ConnectionManager : public QObject
{
    Q_OBJECT

public:
    explicit ConnectionManager(QObject *parent = nullptr);
    ~ConnectionManager() override;

    // Starts an attempt and returns at once. Refused, with
    // displayErrorRequested and nothing else changed, while a connection to
    // the same address and port is open or being made (a double click), and
    // while ten workers are alive. An attempt abandoned by a disconnection
    // ends at once and frees its place.
    void connectRemoteBroker(const std::string &address, int port, const QString &name);
    void connectRemoteBroker(const std::string &address, int port);
    // Returns at once; disconnected() comes at once, teardownFinished()
    // when every session has closed. Pending remote calls end with
    // "connection lost"; the robot is given ConnectionTiming's
    // unregisterLimitMs to drop the desktop's services.
    void disconnectBroker();
    void destroyConnection();
    // Reports missing services of the current connection, which must exist.
    void checkAvailableModules();

    // The time limits of the attempts started from now on (the defaults
    // unless set): readiness, the two-way test, pose polling.
    using Timing = ConnectionTiming;
    void setTiming(const Timing &timing) { m_timing = timing; }
    const Timing &timing() const { return m_timing; }

    bool isConnected() const;
    bool isConnecting() const { return m_connecting; }
    // True while a connection is being made or closed on a worker: after
    // disconnected(), the session is closed only once this turns false,
    // which teardownFinished() tells.
    bool hasActiveWorkers() const;
    bool wasDisconnectionRequested() const { return m_disconnectionRequested; }
    bool getCurrentConnection(QString &ip, int &port) const;
    bool getCurrentConnection(QString &ip, int &port, QString &name) const;
    bool getCurrentConnectionHttp(std::string &ip, int &port) const;
    void getLastConnectionInfo(QString &ip, int &port, QString &name) const;
    bool match(const QString &ip, int port) const;
    bool currentConnectionHasDCM() const;
    bool currentConnectionHasAudioDevice() const;
    bool checkMorvaneCompatibility(QString &clientVersion, QString &robotVersion) const;
    QString morvaneVersion() const;
    bool isMorvaneRestartPossible() const { return false; }

    // The current connection itself, null when there is none: for readers
    // that need its proxies or plain fields.
    boost::shared_ptr<Connection> currentConnection() const { return m_connection; }
    // Owned by the manager; the application starts and cancels it (see
    // ReconnectionManager) and may shorten its tick.
    ReconnectionManager *reconnectionManager() const { return m_reconnectionManager; }

    boost::shared_ptr<RobotStateReceiver> robotStateReceiver() const;
    boost::shared_ptr<VideoDeviceInterface> videoDeviceInterface() const;
    boost::shared_ptr<ResourcesInterface> resourcesInterface() const;
    boost::shared_ptr<BehaviorManagerInterface> behaviorManagerInterface() const;
    boost::shared_ptr<MemoryInterface> memoryInterface() const;
    boost::shared_ptr<ConfigInterface> configInterface() const;
    boost::shared_ptr<SartelModuleInterface> sartelModuleInterface() const;
    boost::shared_ptr<VXSartelRecorder> recorderModule() const;
    boost::shared_ptr<AudioInterface> audioInterface() const;
    boost::shared_ptr<AnimatedSpeechInterface> animatedSpeechInterface() const;
    boost::shared_ptr<BatteryInterface> batteryInterface() const;
    boost::shared_ptr<LauncherInterface> launcherInterface() const;
    boost::shared_ptr<DialogInterface> dialogInterface() const;
    boost::shared_ptr<PackageManagerInterface> packageManagerInterface() const;
    boost::shared_ptr<AutonomousLifeInterface> autonomousLifeInterface() const;
    boost::shared_ptr<WorldRepresentationInterface> worldRepresentationInterface() const;
    boost::shared_ptr<LogListenerInterface> logListenerInterface() const;
    boost::shared_ptr<RobotPostureInterface> robotPostureInterface() const;
    boost::shared_ptr<EngagementZonesInterface> engagementZonesInterface() const;
    boost::shared_ptr<PeoplePerceptionInterface> peoplePerceptionInterface() const;
    boost::shared_ptr<BasicAwarenessInterface> basicAwarenessInterface() const;

signals:
    void connecting(bool isConnecting);
    void connectionEstablished();
    void connectionTested(bool success);
    void disconnected();
    void connectionLost();
    // Every worker has ended and every session it held is closed, so the
    // robot has seen this desktop leave.
    void teardownFinished();
    void displayErrorRequested(QString title, QString contents, QString details,
                               bool checkWarningEnable = false);

public slots:
    void onMorvaneRestartNeeded();
    void onSessionDisconnected(std::string error);
    // An attempt failed; the threads manager has reported why.
    void onConnectionFailed();
    void onConnectionCreated(boost::shared_ptr<wz::Session> session,
                             boost::shared_ptr<RK::Connection> connection);

private:
    void setConnecting(bool on);
    void releaseCurrent();

    boost::shared_ptr<wz::Session> m_session;
    wz::SignalLink m_sessionLink;
    boost::shared_ptr<Connection> m_connection;
    bool m_connecting = false;
    Timing m_timing;
    bool m_disconnectionRequested = true;
    QString m_name;
    QString m_lastAddress;
    int m_lastPort = 0;
    QString m_lastName;
    // Owned.
    ReconnectionManager *m_reconnectionManager = nullptr;
    bool m_restartNeeded = false;
    ConnectionThreadsManager *m_threadsManager;
};

} // namespace RK
