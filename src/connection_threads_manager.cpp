#include "connection_p.h"
#include "connection_thread_p.h"
#include "connection_threads_manager_p.h"
#include <connection/connection_manager.h>
#include <connection/meta_types.h>
#include <connection/platform.h>

#include <wz/log.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>

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

bool ConnectionThreadsManager::initConnection(boost::shared_ptr<wz::Session> session,
                                              boost::shared_ptr<Connection> connection,
                                              const std::string &address, int port,
                                              const QString &name)
{
    if (m_threads.size() > a_maxWorkers - 1) {
        emit displayErrorRequested(tr("ConnectionError"), tr("Cannot connect to Morvane"),
                                   tr("Too much parallel connections, please wait a while"), false);
        return false;
    }
    // Workers are found again by name when they go, so names are never reused.
    static int counter = 0;
    ConnectionThread *worker = new ConnectionThread(this);
    worker->setObjectName(QString::number(++counter));
    worker->initConnection(session, connection, address, port, name);
    connect(worker, &QObject::destroyed, this, &ConnectionThreadsManager::onThreadDestroyed);
    m_threads.append(worker);
    return true;
}

void ConnectionThreadsManager::destroyConnection()
{
    const QList<ConnectionThread *> workers = m_threads;
    for (ConnectionThread *worker : workers)
        worker->destroyConnection();
}

void ConnectionThreadsManager::retire(const boost::shared_ptr<Connection> &connection)
{
    const QList<ConnectionThread *> workers = m_threads;
    for (ConnectionThread *worker : workers) {
        if (worker->built(connection))
            worker->destroyConnection();
    }
}

void ConnectionThreadsManager::shutdown(boost::shared_ptr<Connection> current)
{
    // Nothing of what follows is news to anybody: the manager is going.
    disconnect(this, nullptr, nullptr, nullptr);
    const QList<ConnectionThread *> workers = m_threads;
    m_threads.clear();
    for (ConnectionThread *worker : workers) {
        disconnect(worker, &QObject::destroyed, this, &ConnectionThreadsManager::onThreadDestroyed);
        boost::shared_ptr<Connection> mine;
        if (worker->built(current))
            mine.swap(current);
        worker->finishNow(std::move(mine));
    }
    for (ConnectionThread *worker : workers)
        delete worker;
}

bool ConnectionThreadsManager::hasLiveWorkerFor(const std::string &address, int port) const
{
    for (const ConnectionThread *worker : m_threads) {
        if (worker->isLive() && worker->isFor(address, port))
            return true;
    }
    return false;
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
    connectionManager()->onConnectionFailed();
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
    // Named, so that a thread left behind would be recognisable.
    m_thread.setObjectName(QStringLiteral("nimiob connection"));
    m_initTask->moveToThread(&m_thread);
    m_destroyTask->moveToThread(&m_thread);

    // The tasks go with the thread, never before: a teardown may be posted
    // to the destroy task at any time until then.
    connect(&m_thread, &QThread::finished, m_initTask, &QObject::deleteLater);
    connect(m_initTask, &InitConnectionTask::finished, this, &ConnectionThread::onConnectionCreated,
            Qt::QueuedConnection);
    connect(m_initTask, &InitConnectionTask::sessionConnectionFailed, this,
            &ConnectionThread::onConnectionFailed, Qt::QueuedConnection);
    connect(m_initTask, &InitConnectionTask::connectionInitFailed, this,
            &ConnectionThread::onConnectionFailed, Qt::QueuedConnection);
    connect(&m_thread, &QThread::finished, m_destroyTask, &QObject::deleteLater);
    connect(m_destroyTask, &DestroyConnectionTask::finished, this,
            &ConnectionThread::onConnectionDestroyed, Qt::QueuedConnection);

    m_thread.start(QThread::InheritPriority);
}

ConnectionThread::~ConnectionThread()
{
    // A session still open (a failed attempt's, say) closes before the
    // thread is joined, so that nothing on that thread waits on the robot.
    if (m_session)
        m_session->close();
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
    m_session = session;
    m_address = address;
    m_port = port;
    m_attempting = true;
    InitConnectionTask *task = m_initTask;
    QMetaObject::invokeMethod(
        task,
        [task, session, connection, address, port, name]() {
            task->execute(session, connection, address, port, name);
        },
        Qt::QueuedConnection);
}

void ConnectionThread::destroyConnection()
{
    if (m_destroying)
        return;
    m_destroying = true;
    if (m_attempting) {
        // The attempt ends on its own thread, soon, with a failure (or, if it
        // was just done, a success) that comes back here and is closed
        // without telling anybody.
        m_initTask->abandon();
        if (m_session)
            m_session->close();
        return;
    }
    postTeardown(m_built.lock());
}

void ConnectionThread::postTeardown(boost::shared_ptr<Connection> connection)
{
    if (m_tornDown)
        return;
    m_tornDown = true;
    DestroyConnectionTask *task = m_destroyTask;
    const boost::shared_ptr<wz::Session> session = m_session;
    QMetaObject::invokeMethod(
        task, [task, session, connection]() { task->execute(session, connection); },
        Qt::QueuedConnection);
}

void ConnectionThread::finishNow(boost::shared_ptr<Connection> current)
{
    m_destroying = true;
    disconnect(m_initTask, nullptr, this, nullptr);
    disconnect(m_destroyTask, nullptr, this, nullptr);
    // Closed here and now: every call still waiting on the robot, the
    // attempt's own included, ends at once.
    m_initTask->abandon();
    if (m_session)
        m_session->close();
    if (m_attempting) {
        // The attempt may be inside its readiness wait, a local event loop:
        // quitting ends that too, and the closed session makes it give up.
        // What it built goes with the queued result that nobody reads.
        m_thread.quit();
    } else {
        boost::shared_ptr<Connection> connection = current ? std::move(current) : m_built.lock();
        DestroyConnectionTask *task = m_destroyTask;
        boost::shared_ptr<wz::Session> session = m_session;
        // The connection's last owner lets go on its own thread.
        QMetaObject::invokeMethod(
            task,
            [task, session = std::move(session), connection = std::move(connection)]() mutable {
                if (!task->done())
                    task->execute(std::move(session), std::move(connection));
                connection.reset();
                session.reset();
                QThread::currentThread()->quit();
            },
            Qt::QueuedConnection);
    }
    m_thread.wait();
    m_session.reset();
}

void ConnectionThread::onConnectionCreated(boost::shared_ptr<wz::Session> session,
                                           boost::shared_ptr<Connection> connection)
{
    m_attempting = false;
    m_built = connection;
    if (m_destroying) {
        // Abandoned while it was finishing: close it instead of handing it out.
        postTeardown(connection);
        return;
    }
    manager()->onConnectionCreated(session, connection);
}

void ConnectionThread::onConnectionFailed(QString errorMessage)
{
    m_attempting = false;
    // A failure that crossed a teardown is no longer anybody's business.
    const bool report = !m_destroying;
    m_destroying = true;
    if (m_session)
        m_session->close();
    deleteLater();
    if (report)
        manager()->onConnectionFailed(errorMessage);
}

void ConnectionThread::onConnectionDestroyed()
{
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
        // Abandoned before the link was up: closing it then came too early
        // to end it.
        if (m_abandoned) {
            session->close();
            throw std::runtime_error("disconnected: the attempt was abandoned");
        }
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
    m_done = true;
    // Every call waiting on the robot ends now, with "connection lost".
    if (session)
        session->failPendingCalls("disconnected: the connection is being closed");
    // A robot that does not answer cannot hold what follows: the session
    // closes under it once the limit has passed.
    // Twice the unregistering limit: that wait, and as long again for the
    // executers' unsubscriptions and stops.
    const int limitMs = connection ? 2 * std::max(0, connection->timing().unregisterLimitMs) : 0;
    std::mutex mutex;
    std::condition_variable ended;
    bool over = false;
    std::thread watchdog;
    if (session && connection) {
        watchdog = std::thread([&, session] {
            std::unique_lock<std::mutex> lock(mutex);
            if (!ended.wait_for(lock, std::chrono::milliseconds(limitMs), [&] { return over; }))
                session->close();
        });
    }
    // While the session is still open: a bounded wait.
    if (connection)
        connection->unregisterServices();
    // The executers' last words reach the robot; none of them waits on it
    // for longer than the watchdog allows.
    if (connection)
        connection->destroyInterfaces();
    if (watchdog.joinable()) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            over = true;
        }
        ended.notify_all();
        watchdog.join();
    }
    if (session) {
        try {
            session->close();
        } catch (const std::exception &e) {
            wz::log::LogStream(wz::LogLevel_Error, k_category, __FUNCTION__)
                << "Closing the session failed: " << e.what();
        }
    }
    // If this was the last owner the connection goes here, on its own thread.
    connection.reset();
    session.reset();
    emit finished();
}

} // namespace RK
