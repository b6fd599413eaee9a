#pragma once

#include <connection/operation_error.h>

#include <connection/meta_types.h>
#include <connection/morvane_interface.h>
#include <connection/nimiob_export.h>

#include <QFuture>
#include <QObject>
#include <QString>

#include <boost/shared_ptr.hpp>

namespace RK {

class Connection;
class ExecuterThread;
class LogListenerExecuter;

// The robot's log messages, pushed to the application as they come, and the
// robot-side filters that cut them down. The settings run on the pool and
// never report a failure to the caller: the future simply ends.
//
// Messages are delivered on the application's main thread (the thread of
// QCoreApplication). Those waiting for it are held in one queue of at most
// queueLimit() messages: when the application falls further behind, the
// oldest go, and logMessagesDropped(count) says how many went, just before
// the next message delivered. So a stalled application costs a bounded
// amount of memory, never a growing one.
class NIMIOB_EXPORT LogListenerInterface
    : public QObject,
      public MorvaneInterface<LogListenerExecuter, ExecuterThread>
{
    Q_OBJECT

public:
    explicit LogListenerInterface(boost::shared_ptr<Connection> connection);
    ~LogListenerInterface() override;

    // A filter on every category ("*"), not a write of the verbosity.
    QFuture<void> setLogLevel(wz::LogLevel level);
    QFuture<void> setCategory(const QString &cat, wz::LogLevel level);
    QFuture<void> clearFilters();
    // The robot's verbosity; info (4) when it cannot be read.
    QFuture<wz::LogLevel> logLevel();

    // Thread-safe; 10000 messages unless set, at least 1.
    void setQueueLimit(int messages);
    int queueLimit() const;

signals:
    /// An operation of this interface failed (a request slot, or a method
    /// returning a future, which then finishes with its default value).
    /// Emitted exactly once for each failed operation, on a library thread
    /// (the executer's, or a pool thread): connect it with a receiver object,
    /// and it arrives queued on that object's thread.
    void errorOccurred(const RK::OperationError &error);
    /// The connection this interface belongs to has ended: from now on
    /// every request fails at once with RK::ErrorCode::ConnectionLost, and
    /// the application may drop the object. Emitted once, on the thread that
    /// destroys the connection.
    void connectionEnded();
    void onLogMessageReceived(wz::LogMessage message);
    // `count` messages, the oldest waiting, were dropped since the last
    // delivery because the application's thread did not keep up.
    void logMessagesDropped(int count);
};

} // namespace RK
