#include "connection_threads_manager_p.h"
#include <connection/connection.h>
#include <connection/connection_manager.h>
#include <connection/meta_types.h>
#include <connection/platform.h>
#include <connection/reconnection_manager.h>

#include <QPointer>

#include <boost/make_shared.hpp>

#include <utility>

#include <wz/log.h>

namespace RK {

namespace {

// Runs on a framework thread: it only posts to the manager, and only while
// the manager exists.
void sessionDisconnected(const QPointer<ConnectionManager> &guard, const std::string &reason)
{
    ConnectionManager *manager = guard.data();
    if (!manager)
        return;
    QMetaObject::invokeMethod(
        manager, [manager, reason] { manager->onSessionDisconnected(reason); },
        Qt::QueuedConnection);
}

} // namespace

ConnectionManager::ConnectionManager(QObject *parent)
    : QObject(parent), m_sessionLink(wz::SignalBase::invalidSignalLink), m_threadsManager(nullptr)
{
    qRegisterMetaType<wz::Future<void>>("wz::Future<void>");
    qRegisterMetaType<std::string>("std::string");
    m_reconnectionManager = new ReconnectionManager(this);
    m_threadsManager = new ConnectionThreadsManager(this);
    connect(m_threadsManager, &ConnectionThreadsManager::allWorkersFinished, this,
            &ConnectionManager::teardownFinished);
    connect(m_threadsManager, &ConnectionThreadsManager::displayErrorRequested, this,
            &ConnectionManager::displayErrorRequested);
}

// The whole teardown, here and now: every session closes at once, so that
// no remote call is waited for, and every worker and executer thread has
// been joined when this returns.
ConnectionManager::~ConnectionManager()
{
    delete m_reconnectionManager;
    m_reconnectionManager = nullptr;
    if (m_session && m_sessionLink != wz::SignalBase::invalidSignalLink)
        m_session->disconnected.disconnect(m_sessionLink);
    m_sessionLink = wz::SignalBase::invalidSignalLink;
    boost::shared_ptr<Connection> current;
    current.swap(m_connection);
    m_threadsManager->shutdown(std::move(current));
    releaseCurrent();
}

void ConnectionManager::connectRemoteBroker(const std::string &address, int port,
                                            const QString &name)
{
    // A second attempt on the same robot would register the desktop's
    // services a second time, which the robot refuses, and its failure
    // would take the first connection down with it.
    if (m_threadsManager->hasLiveWorkerFor(address, port)) {
        wz::log::LogStream(wz::LogLevel_Warning, "con.connection", __FUNCTION__)
            << "Refused a second connection to " << address << ":" << port;
        emit displayErrorRequested(
            tr("ConnectionError"), tr("Cannot connect to Morvane"),
            tr("A connection to %1:%2 is already open or being made. Disconnect first.")
                .arg(QString::fromStdString(address))
                .arg(port),
            false);
        return;
    }

    boost::shared_ptr<wz::Session> session = boost::make_shared<wz::Session>();
    // A place holder: the worker replaces it with the connection it builds.
    boost::shared_ptr<Connection> connection = boost::make_shared<Connection>(
        session.get(), QString::fromLatin1(address.c_str()), port, name);
    connection->setTiming(m_timing);
    if (!m_threadsManager->initConnection(session, connection, address, port, name))
        return;
    setConnecting(true);
    m_name = name;
    m_lastAddress = QString::fromLatin1(address.c_str());
    m_lastPort = port;
    m_lastName = name;
}

void ConnectionManager::connectRemoteBroker(const std::string &address, int port)
{
    connectRemoteBroker(address, port, QString::fromLatin1(address.c_str()));
}

void ConnectionManager::disconnectBroker()
{
    m_disconnectionRequested = true;
    destroyConnection();
}

void ConnectionManager::destroyConnection()
{
    if (m_session) {
        m_session->disconnected.disconnect(m_sessionLink);
        m_sessionLink = wz::SignalBase::invalidSignalLink;
    }
    m_threadsManager->destroyConnection();
    releaseCurrent();
    setConnecting(false);
    emit disconnected();
}

void ConnectionManager::onConnectionCreated(boost::shared_ptr<wz::Session> session,
                                            boost::shared_ptr<RK::Connection> connection)
{
    // A connection that replaces a working one (another robot's): the old
    // one is torn down by its own worker, and must not report its own end
    // as our loss.
    if (m_session && m_sessionLink != wz::SignalBase::invalidSignalLink)
        m_session->disconnected.disconnect(m_sessionLink);
    m_sessionLink = wz::SignalBase::invalidSignalLink;
    if (m_connection)
        m_threadsManager->retire(m_connection);
    // The connection before its session: it holds a plain pointer to it.
    m_connection = connection;
    m_session = session;

    const QPointer<ConnectionManager> guard(this);
    m_sessionLink = m_session->disconnected.connect(
        [guard](const std::string &reason) { sessionDisconnected(guard, reason); });

    // Queued, so that the outcome of the test always follows connectionEstablished(),
    // even when it is known at once.
    connect(m_connection.get(), &Connection::connectionTested, this,
            &ConnectionManager::connectionTested, Qt::QueuedConnection);
    m_connection->testConnection();
    emit connectionEstablished();
    setConnecting(false);
    m_disconnectionRequested = false;
}

void ConnectionManager::onConnectionFailed()
{
    // A failed attempt beside a working connection (to another robot) leaves
    // that connection alone.
    if (m_connection) {
        setConnecting(false);
        return;
    }
    destroyConnection();
}

void ConnectionManager::onSessionDisconnected(std::string error)
{
    wz::log::LogStream(wz::LogLevel_Info, "con.connection", __FUNCTION__)
        << "Connection was lost with the robot: " << error;
    destroyConnection();
    emit connectionLost();
}

void ConnectionManager::onMorvaneRestartNeeded()
{
    if (isMorvaneRestartPossible())
        m_restartNeeded = true;
}

void ConnectionManager::checkAvailableModules()
{
    if (!m_connection) {
        wz::log::LogStream(wz::LogLevel_Warning, "con.connection", __FUNCTION__)
            << "No connection to check the modules of";
        return;
    }
    const QString details = m_connection->missingModulesReport();
    if (details.isEmpty())
        return;
    emit displayErrorRequested(tr("Error"),
                               tr("Some modules are missing, some features may not fully work"),
                               details, true);
}

bool ConnectionManager::hasActiveWorkers() const
{
    return m_threadsManager && !m_threadsManager->threads().isEmpty();
}

bool ConnectionManager::isConnected() const
{
    return m_connection && m_connection->ready();
}

bool ConnectionManager::getCurrentConnection(QString &ip, int &port) const
{
    if (!m_connection)
        return false;
    ip = m_connection->address();
    port = m_connection->port();
    return true;
}

bool ConnectionManager::getCurrentConnection(QString &ip, int &port, QString &name) const
{
    if (!getCurrentConnection(ip, port))
        return false;
    name = m_connection->name();
    return true;
}

bool ConnectionManager::getCurrentConnectionHttp(std::string &ip, int &port) const
{
    if (!m_connection)
        return false;
    ip = m_connection->address().toLatin1().toStdString();
    port = m_connection->httpTransferPort();
    return true;
}

void ConnectionManager::getLastConnectionInfo(QString &ip, int &port, QString &name) const
{
    ip = m_lastAddress;
    port = m_lastPort;
    name = m_lastName;
}

bool ConnectionManager::match(const QString &ip, int port) const
{
    QString currentIp;
    int currentPort = 0;
    // Without a connection the port is never set, so no port can match.
    if (!getCurrentConnection(currentIp, currentPort))
        return false;
    return ip == currentIp && port == currentPort;
}

bool ConnectionManager::currentConnectionHasDCM() const
{
    return m_connection && m_connection->hasDCM();
}

bool ConnectionManager::currentConnectionHasAudioDevice() const
{
    return m_connection && m_connection->audioDevice();
}

bool ConnectionManager::checkMorvaneCompatibility(QString &clientVersion,
                                                  QString &robotVersion) const
{
    if (!m_connection)
        return false;
    return m_connection->checkMorvaneCompatibility(clientVersion, robotVersion);
}

QString ConnectionManager::morvaneVersion() const
{
    return m_connection ? m_connection->morvaneVersion() : QString();
}

void ConnectionManager::setConnecting(bool on)
{
    if (m_connecting == on)
        return;
    m_connecting = on;
    emit connecting(on);
}

void ConnectionManager::releaseCurrent()
{
    // The connection before its session: it holds a plain pointer to it.
    m_connection.reset();
    m_session.reset();
}

#define RK_CONNECTION_ACCESSOR(Type, accessor) \
    boost::shared_ptr<Type> ConnectionManager::accessor() const \
    { \
        return m_connection ? m_connection->accessor() : boost::shared_ptr<Type>(); \
    }

RK_CONNECTION_ACCESSOR(RobotStateReceiver, robotStateReceiver)
RK_CONNECTION_ACCESSOR(VideoDeviceInterface, videoDeviceInterface)
RK_CONNECTION_ACCESSOR(ResourcesInterface, resourcesInterface)
RK_CONNECTION_ACCESSOR(BehaviorManagerInterface, behaviorManagerInterface)
RK_CONNECTION_ACCESSOR(MemoryInterface, memoryInterface)
RK_CONNECTION_ACCESSOR(ConfigInterface, configInterface)
RK_CONNECTION_ACCESSOR(SartelModuleInterface, sartelModuleInterface)
RK_CONNECTION_ACCESSOR(VXSartelRecorder, recorderModule)
RK_CONNECTION_ACCESSOR(AudioInterface, audioInterface)
RK_CONNECTION_ACCESSOR(AnimatedSpeechInterface, animatedSpeechInterface)
RK_CONNECTION_ACCESSOR(BatteryInterface, batteryInterface)
RK_CONNECTION_ACCESSOR(LauncherInterface, launcherInterface)
RK_CONNECTION_ACCESSOR(DialogInterface, dialogInterface)
RK_CONNECTION_ACCESSOR(PackageManagerInterface, packageManagerInterface)
RK_CONNECTION_ACCESSOR(AutonomousLifeInterface, autonomousLifeInterface)
RK_CONNECTION_ACCESSOR(WorldRepresentationInterface, worldRepresentationInterface)
RK_CONNECTION_ACCESSOR(LogListenerInterface, logListenerInterface)
RK_CONNECTION_ACCESSOR(RobotPostureInterface, robotPostureInterface)
RK_CONNECTION_ACCESSOR(EngagementZonesInterface, engagementZonesInterface)
RK_CONNECTION_ACCESSOR(PeoplePerceptionInterface, peoplePerceptionInterface)
RK_CONNECTION_ACCESSOR(BasicAwarenessInterface, basicAwarenessInterface)

#undef RK_CONNECTION_ACCESSOR

} // namespace RK
