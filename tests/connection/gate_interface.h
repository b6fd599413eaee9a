#pragma once

// A test-only service on the frame whose work is local and held at a gate,
// so that tests decide when a call may end.

#include "morvane_interface_p.h"

#include <QFuture>
#include <QObject>
#include <QSemaphore>
#include <QThread>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <atomic>
#include <memory>

namespace RK {
class Connection;
}

namespace test {

class GateExecuter : public QObject
{
    Q_OBJECT

public:
    explicit GateExecuter(boost::shared_ptr<RK::Connection> connection) : m_connection(connection)
    { }

    // Pool route: waits at the gate, then answers 7; -1 without a connection.
    int passGate();

    // Shared, so that a thread opening the gate never outlives it.
    std::shared_ptr<QSemaphore> gate = std::make_shared<QSemaphore>();
    std::shared_ptr<QSemaphore> entered = std::make_shared<QSemaphore>();
    // Shared so that a test can read it after the executer is gone.
    std::shared_ptr<std::atomic<int>> slotRuns = std::make_shared<std::atomic<int>>(0);
    std::atomic<int> poolRuns {0};
    std::atomic<int> poolDone {0};
    std::atomic<QThread *> slotThread {nullptr};

public slots:
    void onKnock();

signals:
    void knocked(int runs);

private:
    boost::weak_ptr<RK::Connection> m_connection;
};

class GateInterface : public QObject, public RK::MorvaneInterface<GateExecuter, RK::ExecuterThread>
{
    Q_OBJECT

public:
    GateInterface(boost::shared_ptr<RK::Connection> connection, const QString &name);

    void knock() { emit knockRequested(); }
    QFuture<int> pass() { return run(&GateExecuter::passGate); }

signals:
    void knockRequested();
    void knocked(int runs);
};

} // namespace test
