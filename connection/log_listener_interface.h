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

/// The robot's log messages, pushed to the application as they come, and the
/// robot-side filters that cut them down. The settings run on the pool and
/// never report a failure to the caller: the future simply ends.
///
/// Messages are delivered on the application's main thread (the thread of
/// QCoreApplication). Those waiting for it are held in one queue of at most
/// queueLimit() messages: when the application falls further behind, the
/// oldest go, and logMessagesDropped(count) says how many went, just before
/// the next message delivered. So a stalled application costs a bounded
/// amount of memory, never a growing one.
///
/// This is the robot's log. The library's own log is another: it goes
/// through the platform's process-wide sink (<wz/log.h>), which writes it
/// to the application's standard error. To change that:
/// \code
/// wz::log::setLogLevel(wz::LogLevel_Warning);   // keep warnings and errors only
/// wz::log::setStderrEnabled(false);             // nothing on standard error
/// const uint64_t id = wz::log::addHandler([](const wz::LogMessage &m) {
///     // called on the library thread that logs: hand it over, do not block
/// });
/// wz::log::removeHandler(id);                   // before what the handler uses goes
/// \endcode
///
/// \b Thread and \b ownership as for every interface (see MorvaneInterface):
/// it lives on the connection's worker thread and its signals come on library
/// threads, so connect them with a receiver object on the GUI thread. It is
/// new at every connection, shared by the connection and the holders of
/// ConnectionManager::logListenerInterface(): drop the pointer on
/// ConnectionManager::disconnected(). Its methods return at once and may be
/// called from any thread.
class NIMIOB_EXPORT LogListenerInterface
    : public QObject,
      public MorvaneInterface<LogListenerExecuter, ExecuterThread>
{
    Q_OBJECT

public:
    /// Made by the connection's worker thread; applications take it from
    /// ConnectionManager::logListenerInterface().
    explicit LogListenerInterface(boost::shared_ptr<Connection> connection);
    /// Waits for the calls it started and for its executer's thread.
    ~LogListenerInterface() override;

    /// A filter on every category ("*"), not a write of the verbosity.
    QFuture<void> setLogLevel(wz::LogLevel level);
    /// A robot-side filter: messages of category \p cat (where "*" matches any
    /// run of characters) pass from \p level up in importance.
    QFuture<void> setCategory(const QString &cat, wz::LogLevel level);
    /// Removes every robot-side filter set from here.
    QFuture<void> clearFilters();
    /// The robot's verbosity; info (4) when it cannot be read.
    QFuture<wz::LogLevel> logLevel();

    /// Thread-safe; 10000 messages unless set, at least 1.
    void setQueueLimit(int messages);
    /// The most messages waiting for the application's thread; see the class.
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
    /// One message of the robot's log (its level, category, text, and time
    /// in microseconds since the epoch), on the application's main thread.
    void onLogMessageReceived(wz::LogMessage message);
    /// `count` messages, the oldest waiting, were dropped since the last
    /// delivery because the application's thread did not keep up.
    void logMessagesDropped(int count);
};

} // namespace RK
