#include "connection_thread_p.h"
#include "connection_threads_manager_p.h"
#include <connection/connection.h>
#include <connection/connection_manager.h>
#include <connection/meta_types.h>
#include <connection/platform.h>

#include <wz/log.h>

#include <stdexcept>

namespace RK {

namespace {
const char *const k_category = "con.connection";
}

// --- ConnectionThreadsManager -------------------------------------------------------------

ConnectionThreadsManager::ConnectionThreadsManager(ConnectionManager *parent) : QObject(parent)
{
    qRegisterMetaType<boost::shared_ptr<wz::Session>>("boost::shared_ptr<wz::Session>");
    qRegisterMetaType<boost::shared_ptr<RK::Connection>>("boost::shared_ptr<RK::Connection>");
}

// The workers are children: they go with this object, each waiting for its thread.
ConnectionThreadsManager::~ConnectionThreadsManager() = default;

ConnectionManager *ConnectionThreadsManager::connectionManager() const
{
    return static_cast<ConnectionManager *>(parent());
}

void ConnectionThreadsManager::initConnection(boost::shared_ptr<wz::Session> session,
                                              boost::shared_ptr<Connection> connection,
                                              const std::string &address, int port,
                                              const QString &name)
{
    if (m_threads.size() > a_maxWorkers - 1) {
        emit displayErrorRequested(tr("ConnectionError"), tr("Cannot connect to Morvane"),
                                   tr("Too much parallel connections, please wait a while"), false);
        return;
    }
    // Workers are found again by name when they go, so names are never reused.
    static int counter = 0;
    ConnectionThread *worker = new ConnectionThread(this);
    worker->setObjectName(QString::number(++counter));
    worker->initConnection(session, connection, address, port, name);
    connect(worker, &QObject::destroyed, this, &ConnectionThreadsManager::onThreadDestroyed);
    m_threads.append(worker);
}

// Every worker closes: there is no matching of a worker with its connection.
void ConnectionThreadsManager::destroyConnection(boost::shared_ptr<wz::Session> session,
                                                 boost::shared_ptr<Connection> connection)
{
    const QList<ConnectionThread *> workers = m_threads;
    for (ConnectionThread *worker : workers)
        worker->destroyConnection(session, connection);
}

void ConnectionThreadsManager::onConnectionCreated(boost::shared_ptr<wz::Session> session,
                                                   boost::shared_ptr<Connection> connection)
{
    connectionManager()->onConnectionCreated(session, connection);
}

void ConnectionThreadsManager::onConnectionFailed(const QString &errorMessage)
{
    emit displayErrorRequested(tr("ConnectionError"), tr("Cannot connect to Morvane"), errorMessage,
                               false);
    connectionManager()->destroyConnection();
}

void ConnectionThreadsManager::onConnectionDestroyed() { }

void ConnectionThreadsManager::onThreadDestroyed(QObject *connectionThread)
{
    // The object is half destroyed by now; only its name is still reliable.
    const QString name = connectionThread->objectName();
    for (int i = 0; i < m_threads.size(); ++i) {
        if (m_threads.at(i)->objectName() == name) {
            m_threads.removeAt(i);
            if (m_threads.isEmpty())
                emit allWorkersFinished();
            return;
        }
    }
}

// --- ConnectionThread ---------------------------------------------------------------------

ConnectionThread::ConnectionThread(ConnectionThreadsManager *parent)
    : QObject(parent), m_initTask(new InitConnectionTask), m_destroyTask(new DestroyConnectionTask)
{
    m_initTask->moveToThread(&m_thread);
    m_destroyTask->moveToThread(&m_thread);

    connect(&m_thread, &QThread::finished, m_initTask, &QObject::deleteLater);
    connect(m_initTask, &InitConnectionTask::finished, this, &ConnectionThread::onConnectionCreated,
            Qt::QueuedConnection);
    connect(m_initTask, &InitConnectionTask::sessionConnectionFailed, this,
            &ConnectionThread::onConnectionFailed, Qt::QueuedConnection);
    connect(m_initTask, &InitConnectionTask::connectionInitFailed, this,
            &ConnectionThread::onConnectionFailed, Qt::QueuedConnection);
    connect(&m_thread, &QThread::finished, m_destroyTask, &QObject::deleteLater);
    connect(m_destroyTask, &DestroyConnectionTask::finished, this,
            &ConnectionThread::onConnectionDestroyed);

    m_thread.start(QThread::InheritPriority);
}

ConnectionThread::~ConnectionThread()
{
    m_thread.quit();
    m_thread.wait();
}

ConnectionThreadsManager *ConnectionThread::manager() const
{
    return static_cast<ConnectionThreadsManager *>(parent());
}

void ConnectionThread::initConnection(boost::shared_ptr<wz::Session> session,
                                      boost::shared_ptr<Connection> connection,
                                      const std::string &address, int port, const QString &name)
{
    InitConnectionTask *task = m_initTask;
    QMetaObject::invokeMethod(
        task,
        [task, session, connection, address, port, name]() {
            task->execute(session, connection, address, port, name);
        },
        Qt::QueuedConnection);
}

void ConnectionThread::destroyConnection(boost::shared_ptr<wz::Session> session,
                                         boost::shared_ptr<Connection> connection)
{
    if (m_destroying)
        return;
    m_destroying = true;

    if (m_initTask) {
        // The attempt is still running: let it finish undisturbed, then close
        // whatever it built, telling nobody.
        QObject::disconnect(m_initTask, nullptr, nullptr, nullptr);
        connect(m_initTask, &InitConnectionTask::finished, m_destroyTask,
                &DestroyConnectionTask::execute, Qt::QueuedConnection);
        return;
    }
    DestroyConnectionTask *task = m_destroyTask;
    QMetaObject::invokeMethod(
        task, [task, session, connection]() { task->execute(session, connection); },
        Qt::QueuedConnection);
}

void ConnectionThread::onConnectionCreated(boost::shared_ptr<wz::Session> session,
                                           boost::shared_ptr<Connection> connection)
{
    m_initTask->deleteLater();
    m_initTask = nullptr;
    if (m_destroying) {
        // The result was already on its way when the teardown rerouted the
        // task: close it here instead of handing it out.
        DestroyConnectionTask *task = m_destroyTask;
        QMetaObject::invokeMethod(
            task, [task, session, connection]() { task->execute(session, connection); },
            Qt::QueuedConnection);
        return;
    }
    manager()->onConnectionCreated(session, connection);
}

void ConnectionThread::onConnectionFailed(QString errorMessage)
{
    m_initTask->deleteLater();
    m_initTask = nullptr;
    // A failure that crossed a teardown is no longer anybody's business.
    if (!m_destroying)
        manager()->onConnectionFailed(errorMessage);
    deleteLater();
}

void ConnectionThread::onConnectionDestroyed()
{
    m_destroyTask->deleteLater();
    m_destroyTask = nullptr;
    manager()->onConnectionDestroyed();
    deleteLater();
}

// --- InitConnectionTask -------------------------------------------------------------------

void InitConnectionTask::execute(boost::shared_ptr<wz::Session> session,
                                 boost::shared_ptr<Connection> connection, std::string address,
                                 int port, QString name)
{
    // Listening lets the robot call back into the services this process
    // registers. Its failure is a failed attempt, never a silent success.
    try {
        session->listen(wz::Url("tcp://127.0.0.1:0")).value();
    } catch (const std::exception &e) {
        wz::log::LogStream(wz::LogLevel_Error, k_category, __FUNCTION__)
            << "Could not listen for the robot's calls: " << e.what();
        emit sessionConnectionFailed(QString::fromUtf8(e.what()));
        return;
    }

    try {
        if (port < 0 || port > 65535)
            throw std::runtime_error("invalid port " + std::to_string(port));
        const wz::Url url(address, "tcp", static_cast<unsigned short>(port));
        if (!url.isValid())
            throw std::runtime_error(url.error());
        session->connect(url).value();
    } catch (const std::exception &e) {
        emit sessionConnectionFailed(QString::fromUtf8(e.what()));
        return;
    }

    // The place holder is dropped here: the real connection is always built
    // on this thread, from the session's URL, with the place holder's timing.
    try {
        connection = Connection::create(session, name, connection->timing());
    } catch (const Connection::Interrupted &) {
        emit connectionInitFailed(tr("Morvane disconnected unexpectedly. Verify your network and "
                                     "make sure that no other Morvane is running."));
        return;
    } catch (const std::exception &e) {
        emit connectionInitFailed(QString::fromUtf8(e.what()));
        return;
    }
    emit finished(session, connection);
}

// --- DestroyConnectionTask ----------------------------------------------------------------

void DestroyConnectionTask::execute(boost::shared_ptr<wz::Session> session,
                                    boost::shared_ptr<Connection> connection)
{
    if (connection)
        connection->destroyInterfaces();
    // If this was the last owner the connection goes here, on its own thread.
    connection.reset();
    if (session) {
        // The worker must still report, or it would hold its place for ever.
        try {
            session->close().value();
        } catch (const std::exception &e) {
            wz::log::LogStream(wz::LogLevel_Error, k_category, __FUNCTION__)
                << "Closing the session failed: " << e.what();
        }
    }
    session.reset();
    emit finished();
}

} // namespace RK
