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

// Runs a command on the robot ("VXLauncher") and waits for it there. The
// answer is an error text, empty on success (exit code 0 or below).
class NIMIOB_EXPORT LauncherInterface : public QObject,
                                        public MorvaneInterface<LauncherExecuter, ExecuterThread>
{
    Q_OBJECT

public:
    explicit LauncherInterface(boost::shared_ptr<Connection> connection);
    ~LauncherInterface() override;

    // Emits launchWaitRequested.
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
    void launchWaitRequested(QString command, std::vector<std::string> args);
    void launchWaitFinished(QString errorMessage);
};

} // namespace RK
