#pragma once

#include <connection/operation_error.h>

#include <connection/meta_types.h>
#include <connection/morvane_interface.h>
#include <connection/nimiob_export.h>

#include <QObject>
#include <QString>

#include <boost/shared_ptr.hpp>

#include <string>
#include <vector>

namespace RK {

class Connection;
class ExecuterThread;
class LauncherExecuter;

/// Runs a command on the robot ("VXLauncher") and waits for it there. The
/// answer is an error text, empty on success (exit code 0 or below).
///
/// \b Thread and \b ownership as for every interface (see MorvaneInterface):
/// it lives on the connection's worker thread and its signals come on library
/// threads, so connect them with a receiver object on the GUI thread. It is
/// new at every connection, shared by the connection and the holders of
/// ConnectionManager::launcherInterface(): drop the pointer on
/// ConnectionManager::disconnected(). Its methods return at once and may be
/// called from any thread.
class NIMIOB_EXPORT LauncherInterface : public QObject,
                                        public MorvaneInterface<LauncherExecuter, ExecuterThread>
{
    Q_OBJECT

public:
    /// Made by the connection's worker thread; applications take it from
    /// ConnectionManager::launcherInterface().
    explicit LauncherInterface(boost::shared_ptr<Connection> connection);
    /// Waits for the calls it started and for its executer's thread.
    ~LauncherInterface() override;

    /// Emits launchWaitRequested.
    void launchWait(const QString &command, const std::vector<std::string> &args);

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
    /// Carries launchWait() to the executer's thread.
    void launchWaitRequested(QString command, std::vector<std::string> args);
    /// The command has ended: \p errorMessage is empty when it exited with 0
    /// (or below), else it names the command and its exit code. A call that
    /// could not be made ends in errorOccurred() instead.
    void launchWaitFinished(QString errorMessage);
};

} // namespace RK
