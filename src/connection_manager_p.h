#pragma once

#include <connection/connection_manager.h>

#include <QString>

#include <boost/shared_ptr.hpp>

#include <wz/signal.h>

namespace wz {
class Session;
}

namespace RK {

class Connection;
class ConnectionThreadsManager;
class ReconnectionManager;

// The manager's state, behind its one pointer so that its header shows only
// what an application uses.
class ConnectionManagerPrivate
{
public:
    static ConnectionManagerPrivate *get(ConnectionManager *manager) { return manager->d.get(); }
    static const ConnectionManagerPrivate *get(const ConnectionManager *manager)
    {
        return manager->d.get();
    }

    // Emits connecting() only when the flag changes.
    void setConnecting(ConnectionManager *q, bool on);
    void releaseCurrent();

    boost::shared_ptr<wz::Session> session;
    wz::SignalLink sessionLink = wz::SignalBase::invalidSignalLink;
    // Counts the sessions taken on and let go; a loss report carries the
    // count of its session, and one that arrives after its session has been
    // let go (a disconnection, a newer connection) is dropped.
    quint64 sessionGeneration = 0;
    // Declared after the session, so that it goes first: it holds a plain
    // pointer to the session.
    boost::shared_ptr<Connection> connection;
    bool connecting = false;
    ConnectionTiming timing;
    bool disconnectionRequested = true;
    QString name;
    QString lastAddress;
    int lastPort = 0;
    QString lastName;
    // Owned.
    ReconnectionManager *reconnectionManager = nullptr;
    bool restartNeeded = false;
    // A child of the manager.
    ConnectionThreadsManager *threadsManager = nullptr;
};

// The manager's current connection, null when there is none: for the
// library's tools and tests, which read its proxies or plain fields.
inline boost::shared_ptr<Connection> currentConnection(const ConnectionManager &manager)
{
    return ConnectionManagerPrivate::get(&manager)->connection;
}

} // namespace RK
