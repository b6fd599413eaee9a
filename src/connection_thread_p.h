#pragma once

#include <QObject>
#include <QString>
#include <QThread>

#include <boost/shared_ptr.hpp>

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

signals:
    void finished(boost::shared_ptr<wz::Session> session,
                  boost::shared_ptr<RK::Connection> connection);
    void sessionConnectionFailed(QString errorMessage);
    void connectionInitFailed(QString errorMessage);

public slots:
    void execute(boost::shared_ptr<wz::Session> session,
                 boost::shared_ptr<RK::Connection> connection, std::string address, int port,
                 QString name);
};

// Dismantles the connection and closes the session, on the worker's thread.
class DestroyConnectionTask : public QObject
{
    Q_OBJECT

public:
    DestroyConnectionTask() = default;

signals:
    void finished();

public slots:
    void execute(boost::shared_ptr<wz::Session> session,
                 boost::shared_ptr<RK::Connection> connection);
};

// One connection attempt and, when it succeeds, the thread its connection
// lives on. Not a thread itself: it owns one, with a task to open and a task
// to close. Lives on the GUI thread as a child of the threads manager.
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
    void destroyConnection(boost::shared_ptr<wz::Session> session,
                           boost::shared_ptr<Connection> connection);

public slots:
    void onConnectionCreated(boost::shared_ptr<wz::Session> session,
                             boost::shared_ptr<RK::Connection> connection);
    void onConnectionFailed(QString errorMessage);
    void onConnectionDestroyed();

private:
    QThread m_thread;
    InitConnectionTask *m_initTask;
    DestroyConnectionTask *m_destroyTask;
    bool m_destroying = false;
};

} // namespace RK
