#pragma once

#include <connection/operation_error.h>

#include <connection/meta_types.h>

#include <QObject>
#include <QString>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <cstdint>
#include <memory>

namespace RK {

class Connection;

class LogListenerExecuter : public QObject
{
    Q_OBJECT

public:
    // Messages waiting for the application's thread, at most, by default.
    static const int a_defaultQueueLimit = 10000;

    explicit LogListenerExecuter(boost::shared_ptr<Connection> connection);
    // Closes the gate first: the subscription may outlive this object.
    ~LogListenerExecuter() override;

    wz::LogLevel logLevel();
    void setLogLevel(wz::LogLevel level);
    void clearFilters();
    void setCategory(QString cat, wz::LogLevel level);

    // Thread-safe. A limit below 1 counts as 1.
    void setQueueLimit(int messages);
    int queueLimit() const;

    struct Stats
    {
        uint64_t received = 0; // from the robot, since construction
        uint64_t dropped = 0; // of those, dropped as the oldest of a full queue
        int pending = 0; // waiting for the application's thread now
    };
    Stats stats() const;

    // The gate between the framework's callback and this object, and the
    // bounded queue to the application's thread.
    class Gate;

public slots:
    // On a framework thread: queues the message for the application's thread.
    void onMessage(wz::LogMessage mess);

signals:
    // Each failed operation, once; its interface forwards it.
    void errorOccurred(const RK::OperationError &error);
    // On the application's main thread (the thread of QCoreApplication), in
    // the robot's order. messagesDropped(count) comes before the first
    // message that follows a loss.
    void onLogMessage(wz::LogMessage message);
    void messagesDropped(int count);

private:
    boost::weak_ptr<Connection> m_connection;
    std::shared_ptr<Gate> m_gate;
};

} // namespace RK
