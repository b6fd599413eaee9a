#pragma once

#include <connection/operation_error.h>

#include <connection/morvane_interface.h>
#include <connection/nimiob_export.h>

#include <QObject>
#include <QString>

#include <boost/shared_ptr.hpp>

namespace RK {

class Connection;
class ExecuterThread;
class DialogExecuter;

// Hands a sentence to the robot's dialog engine as if somebody had said it.
class NIMIOB_EXPORT DialogInterface : public QObject,
                                      public MorvaneInterface<DialogExecuter, ExecuterThread>
{
    Q_OBJECT

public:
    explicit DialogInterface(boost::shared_ptr<Connection> connection);
    ~DialogInterface() override;

    void tell(const QString &sentence);

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
    void tellRequested(QString sentence);
    // The robot's reply, or the text of the failure: only the content tells
    // them apart. Nothing comes when the connection or "VXDialog" is missing.
    void tellFinished(QString errorMessage);
};

} // namespace RK
