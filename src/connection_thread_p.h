#pragma once

#include <QObject>
#include <QString>
#include <QThread>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <atomic>
#include <string>

namespace wz {
class Session;
}

namespace RK {

class Connection;
class ConnectionThreadsManager;

// Opens the session and builds the connection, on the worker's thread.
class InitConnectionTask : public QObject
{
    Q_OBJECT

public:
    InitConnectionTask() = default;
    // Thread-safe. The attempt gives up at its next step; closing its
    // session ends a step that waits on the robot.
    void abandon() { m_abandoned = true; }

signals:
    void finished(boost::shared_ptr<wz::Session> session,
                  boost::shared_ptr<RK::Connection> connection);
    void sessionConnectionFailed(QString errorMessage);
    void connectionInitFailed(QString errorMessage);

public slots:
    void execute(boost::shared_ptr<wz::Session> session,
                 boost::shared_ptr<RK::Connection> connection, std::string address, int port,
                 QString name);

private:
    std::atomic<bool> m_abandoned {false};
};

// Dismantles the connection and closes the session, on the worker's thread.
// Bounded whatever the robot does: every remote call still waiting ends at
// once with "connection lost"; the desktop's services are unregistered, and
// the interfaces released (each joining its executer's thread, whose last
// calls still reach a robot that answers), within twice the connection's
// unregisterLimitMs, after which the session is closed under them.
class DestroyConnectionTask : public QObject
{
    Q_OBJECT

public:
    DestroyConnectionTask() = default;
    // On the worker's thread only.
    bool done() const { return m_done; }

signals:
    void finished();

public slots:
    void execute(boost::shared_ptr<wz::Session> session,
                 boost::shared_ptr<RK::Connection> connection);

private:
    bool m_done = false;
};

// One connection attempt and, when it succeeds, the thread its connection
// lives on. Not a thread itself: it owns one, with a task to open and a task
// to close. Lives on the GUI thread as a child of the threads manager, and
// tears down only what its own attempt built.
class ConnectionThread : public QObject
{
    Q_OBJECT

public:
    explicit ConnectionThread(ConnectionThreadsManager *parent);
    ~ConnectionThread() override;

    ConnectionThreadsManager *manager() const;
    QThread *workerThread() { return &m_thread; }

    void initConnection(boost::shared_ptr<wz::Session> session,
                        boost::shared_ptr<Connection> connection, const std::string &address,
                        int port, const QString &name);
    // Starts the teardown once; later calls do nothing. An attempt still
    // running is abandoned: its session closes at once, so that it ends
    // now instead of after the robot's readiness limit, and its place is
    // freed when it has ended.
    void destroyConnection();
    // The teardown, finished on the calling thread: the session closes at
    // once, what was built is dismantled on the worker's thread, and the
    // thread is joined. For the manager's destructor, which cannot wait for
    // its own event loop.
    void finishNow(boost::shared_ptr<Connection> current);

    // True while the attempt runs or its connection serves; false once the
    // teardown was asked for.
    bool isLive() const { return !m_destroying; }
    bool isAttempting() const { return m_attempting; }
    // The robot this worker connects or is connected to.
    bool isFor(const std::string &address, int port) const
    {
        return address == m_address && port == m_port;
    }
    bool built(const boost::shared_ptr<Connection> &connection) const
    {
        return connection && m_built.lock() == connection;
    }

public slots:
    void onConnectionCreated(boost::shared_ptr<wz::Session> session,
                             boost::shared_ptr<RK::Connection> connection);
    void onConnectionFailed(QString errorMessage);
    void onConnectionDestroyed();

private:
    void postTeardown(boost::shared_ptr<Connection> connection);

    QThread m_thread;
    InitConnectionTask *m_initTask;
    DestroyConnectionTask *m_destroyTask;
    bool m_destroying = false;
    bool m_attempting = false;
    bool m_tornDown = false;
    std::string m_address;
    int m_port = -1;
    boost::shared_ptr<wz::Session> m_session;
    // What the attempt handed out; the application may hold it longer.
    boost::weak_ptr<Connection> m_built;
};

} // namespace RK
