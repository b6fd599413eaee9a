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

/// Hands a sentence to the robot's dialog engine as if somebody had said it.
///
/// \b Thread and \b ownership as for every interface (see MorvaneInterface):
/// it lives on the connection's worker thread and its signals come on library
/// threads, so connect them with a receiver object on the GUI thread. It is
/// new at every connection, shared by the connection and the holders of
/// ConnectionManager::dialogInterface(): drop the pointer on
/// ConnectionManager::disconnected(). Its methods return at once and may be
/// called from any thread.
class NIMIOB_EXPORT DialogInterface : public QObject,
                                      public MorvaneInterface<DialogExecuter, ExecuterThread>
{
    Q_OBJECT

public:
    /// Made by the connection's worker thread; applications take it from
    /// ConnectionManager::dialogInterface().
    explicit DialogInterface(boost::shared_ptr<Connection> connection);
    /// Waits for the calls it started and for its executer's thread.
    ~DialogInterface() override;

    /// Tells the dialog engine \p sentence as if somebody had said it;
    /// tellFinished() answers.
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
    /// Carries tell() to the executer's thread.
    void tellRequested(QString sentence);
    /// The robot's reply, or the text of the failure: only the content tells
    /// them apart. Nothing comes when the connection or "VXDialog" is missing
    /// (errorOccurred() then says so).
    void tellFinished(QString errorMessage);
};

} // namespace RK
