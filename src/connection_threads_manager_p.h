#pragma once

#include <QList>
#include <QObject>
#include <QString>

#include <boost/shared_ptr.hpp>

#include <string>

namespace wz {
class Session;
}

namespace RK {

class Connection;
class ConnectionManager;
class ConnectionThread;

// Keeps the live connection workers, at most ten, and hands their results to
// the connection manager. A child of the manager, on the GUI thread.
class ConnectionThreadsManager : public QObject
{
    Q_OBJECT

public:
    // How many workers may be alive at once: attempts, connections and
    // connections still closing all count. An abandoned attempt counts until
    // it has ended, which closing its session makes prompt.
    static const int a_maxWorkers = 10;

    explicit ConnectionThreadsManager(ConnectionManager *parent);
    ~ConnectionThreadsManager() override;

    ConnectionManager *connectionManager() const;

    // False, with displayErrorRequested, when no worker can be started.
    bool initConnection(boost::shared_ptr<wz::Session> session,
                        boost::shared_ptr<Connection> connection, const std::string &address,
                        int port, const QString &name);
    // Every worker tears down what it built.
    void destroyConnection();
    // Only the worker that built `connection` tears down: a connection that
    // another one replaced.
    void retire(const boost::shared_ptr<Connection> &connection);
    // Ends every worker before returning, on this thread; `current` is the
    // connection the manager still holds, null when none. Nothing is
    // reported any more.
    void shutdown(boost::shared_ptr<Connection> current);
    // A worker attempting, or serving, a connection to this robot.
    bool hasLiveWorkerFor(const std::string &address, int port) const;

    void onConnectionCreated(boost::shared_ptr<wz::Session> session,
                             boost::shared_ptr<Connection> connection);
    void onConnectionFailed(const QString &errorMessage);
    void onConnectionDestroyed();

    // The live workers, oldest first.
    QList<ConnectionThread *> threads() const { return m_threads; }

signals:
    void displayErrorRequested(QString title, QString contents, QString details,
                               bool checkWarningEnable = false);
    // The last live worker has ended: every session it held is closed.
    void allWorkersFinished();

public slots:
    void onThreadDestroyed(QObject *connectionThread);

private:
    QList<ConnectionThread *> m_threads;
};

} // namespace RK
