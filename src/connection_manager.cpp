#include "connection_manager_p.h"
#include "connection_p.h"
#include "connection_threads_manager_p.h"

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
// the manager exists. The report is for the session of `generation` alone.
void sessionDisconnected(const QPointer<ConnectionManager> &guard, quint64 generation,
                         const std::string &reason)
{
    ConnectionManager *manager = guard.data();
    if (!manager)
        return;
    QMetaObject::invokeMethod(
        manager,
        [manager, generation, reason] {
            if (ConnectionManagerPrivate::get(manager)->sessionGeneration == generation)
                manager->onSessionDisconnected(reason);
        },
        Qt::QueuedConnection);
}

} // namespace

ConnectionManager::ConnectionManager(QObject *parent)
    : QObject(parent), d(new ConnectionManagerPrivate)
{
    qRegisterMetaType<wz::Future<void>>("wz::Future<void>");
    qRegisterMetaType<std::string>("std::string");
    d->reconnectionManager = new ReconnectionManager(this);
    d->threadsManager = new ConnectionThreadsManager(this);
    connect(d->threadsManager, &ConnectionThreadsManager::allWorkersFinished, this,
            &ConnectionManager::teardownFinished);
    connect(d->threadsManager, &ConnectionThreadsManager::displayErrorRequested, this,
            &ConnectionManager::displayErrorRequested);
}

// The whole teardown, here and now: every session closes at once, so that
// no remote call is waited for, and every worker and executer thread has
// been joined when this returns.
ConnectionManager::~ConnectionManager()
{
    delete d->reconnectionManager;
    d->reconnectionManager = nullptr;
    if (d->session && d->sessionLink != wz::SignalBase::invalidSignalLink)
        d->session->disconnected.disconnect(d->sessionLink);
    d->sessionLink = wz::SignalBase::invalidSignalLink;
    boost::shared_ptr<Connection> current;
    current.swap(d->connection);
    d->threadsManager->shutdown(std::move(current));
    d->releaseCurrent();
}

void ConnectionManager::connectRemoteBroker(const std::string &address, int port,
                                            const QString &name)
{
    // A second attempt on the same robot would register the desktop's
    // services a second time, which the robot refuses, and its failure
    // would take the first connection down with it.
    if (d->threadsManager->hasLiveWorkerFor(address, port)) {
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
    connection->setTiming(d->timing);
    if (!d->threadsManager->initConnection(session, connection, address, port, name))
        return;
    d->setConnecting(this, true);
    d->name = name;
    d->lastAddress = QString::fromLatin1(address.c_str());
    d->lastPort = port;
    d->lastName = name;
}

void ConnectionManager::connectRemoteBroker(const std::string &address, int port)
{
    connectRemoteBroker(address, port, QString::fromLatin1(address.c_str()));
}

void ConnectionManager::disconnectBroker()
{
    d->disconnectionRequested = true;
    destroyConnection();
}

void ConnectionManager::destroyConnection()
{
    if (d->session) {
        d->session->disconnected.disconnect(d->sessionLink);
        d->sessionLink = wz::SignalBase::invalidSignalLink;
    }
    d->threadsManager->destroyConnection();
    d->releaseCurrent();
    ++d->sessionGeneration;
    d->setConnecting(this, false);
    emit disconnected();
}

void ConnectionManager::onConnectionCreated(boost::shared_ptr<wz::Session> session,
                                            boost::shared_ptr<RK::Connection> connection)
{
    // A connection that replaces a working one (another robot's): the old
    // one is torn down by its own worker, and must not report its own end
    // as our loss.
    if (d->session && d->sessionLink != wz::SignalBase::invalidSignalLink)
        d->session->disconnected.disconnect(d->sessionLink);
    d->sessionLink = wz::SignalBase::invalidSignalLink;
    if (d->connection)
        d->threadsManager->retire(d->connection);
    // The connection before its session: it holds a plain pointer to it.
    d->connection = connection;
    d->session = session;

    const QPointer<ConnectionManager> guard(this);
    const quint64 generation = ++d->sessionGeneration;
    d->sessionLink
        = d->session->disconnected.connect([guard, generation](const std::string &reason) {
              sessionDisconnected(guard, generation, reason);
          });

    // Queued, so that the outcome of the test always follows connectionEstablished(),
    // even when it is known at once.
    connect(d->connection.get(), &Connection::connectionTested, this,
            &ConnectionManager::connectionTested, Qt::QueuedConnection);
    d->connection->testConnection();
    emit connectionEstablished();
    d->setConnecting(this, false);
    d->disconnectionRequested = false;
}

void ConnectionManager::onConnectionFailed()
{
    // A failed attempt beside a working connection (to another robot) leaves
    // that connection alone.
    if (d->connection) {
        d->setConnecting(this, false);
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
        d->restartNeeded = true;
}

void ConnectionManager::checkAvailableModules()
{
    if (!d->connection) {
        wz::log::LogStream(wz::LogLevel_Warning, "con.connection", __FUNCTION__)
            << "No connection to check the modules of";
        return;
    }
    const QString details = d->connection->missingModulesReport();
    if (details.isEmpty())
        return;
    emit displayErrorRequested(tr("Error"),
                               tr("Some modules are missing, some features may not fully work"),
                               details, true);
}

bool ConnectionManager::hasActiveWorkers() const
{
    return d->threadsManager && !d->threadsManager->threads().isEmpty();
}

bool ConnectionManager::isConnected() const
{
    return d->connection && d->connection->ready();
}

bool ConnectionManager::getCurrentConnection(QString &ip, int &port) const
{
    if (!d->connection)
        return false;
    ip = d->connection->address();
    port = d->connection->port();
    return true;
}

bool ConnectionManager::getCurrentConnection(QString &ip, int &port, QString &name) const
{
    if (!getCurrentConnection(ip, port))
        return false;
    name = d->connection->name();
    return true;
}

bool ConnectionManager::getCurrentConnectionHttp(std::string &ip, int &port) const
{
    if (!d->connection)
        return false;
    ip = d->connection->address().toLatin1().toStdString();
    port = d->connection->httpTransferPort();
    return true;
}

void ConnectionManager::getLastConnectionInfo(QString &ip, int &port, QString &name) const
{
    ip = d->lastAddress;
    port = d->lastPort;
    name = d->lastName;
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
    return d->connection && d->connection->hasDCM();
}

bool ConnectionManager::currentConnectionHasAudioDevice() const
{
    return d->connection && d->connection->audioDevice();
}

bool ConnectionManager::checkMorvaneCompatibility(QString &clientVersion,
                                                  QString &robotVersion) const
{
    if (!d->connection)
        return false;
    return d->connection->checkMorvaneCompatibility(clientVersion, robotVersion);
}

QString ConnectionManager::morvaneVersion() const
{
    return d->connection ? d->connection->morvaneVersion() : QString();
}

void ConnectionManager::setTiming(const Timing &timing)
{
    d->timing = timing;
}

const ConnectionManager::Timing &ConnectionManager::timing() const
{
    return d->timing;
}

bool ConnectionManager::isConnecting() const
{
    return d->connecting;
}

bool ConnectionManager::wasDisconnectionRequested() const
{
    return d->disconnectionRequested;
}

bool ConnectionManager::isMorvaneRestartPossible() const
{
    return false;
}

QStringList ConnectionManager::boundServices() const
{
    return d->connection ? d->connection->boundServices() : QStringList();
}

QStringList ConnectionManager::missingServices() const
{
    return d->connection ? d->connection->missingServices() : QStringList();
}

ReconnectionManager *ConnectionManager::reconnectionManager() const
{
    return d->reconnectionManager;
}

void ConnectionManagerPrivate::setConnecting(ConnectionManager *q, bool on)
{
    if (connecting == on)
        return;
    connecting = on;
    emit q->connecting(on);
}

void ConnectionManagerPrivate::releaseCurrent()
{
    // The connection before its session: it holds a plain pointer to it.
    connection.reset();
    session.reset();
}

// One for each row of the interface table; the compiler holds the header's
// declarations to it.
#define NIMIOB_MANAGER_ACCESSOR(type, accessor, ...) \
    boost::shared_ptr<type> ConnectionManager::accessor() const \
    { \
        return d->connection ? d->connection->accessor() : boost::shared_ptr<type>(); \
    }
NIMIOB_INTERFACE_TABLE(NIMIOB_MANAGER_ACCESSOR)
#undef NIMIOB_MANAGER_ACCESSOR

} // namespace RK
