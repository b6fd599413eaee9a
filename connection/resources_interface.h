#pragma once

#include <connection/operation_error.h>

#include <connection/meta_types.h>
#include <connection/morvane_interface.h>
#include <connection/nimiob_export.h>

#include <QFuture>
#include <QObject>

#include <boost/shared_ptr.hpp>

namespace RK {

class Connection;
class ExecuterThread;
class ResourcesExecuter;

/// The resource preferences ("vxresourcemanager" of "VXPreferences"), passed
/// on in the robot's own shape, and the current owners of the resources.
///
/// \b Thread and \b ownership as for every interface (see MorvaneInterface):
/// it lives on the connection's worker thread and its signals come on library
/// threads, so connect them with a receiver object on the GUI thread. It is
/// new at every connection, shared by the connection and the holders of
/// ConnectionManager::resourcesInterface(): drop the pointer on
/// ConnectionManager::disconnected(). Its methods return at once and may be
/// called from any thread.
class NIMIOB_EXPORT ResourcesInterface : public QObject,
                                         public MorvaneInterface<ResourcesExecuter, ExecuterThread>
{
    Q_OBJECT

public:
    /// Made by the connection's worker thread; applications take it from
    /// ConnectionManager::resourcesInterface().
    explicit ResourcesInterface(boost::shared_ptr<Connection> connection);
    /// Waits for the calls it started and for its executer's thread.
    ~ResourcesInterface() override;

    /// Emits resourcesRequested(); nothing comes back when the read fails.
    void getResources();
    /// "ownersGet" of "VXResourceManager"; an invalid value when it cannot be asked.
    QFuture<VX::VXValue> getOwners();

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
    /// Carries getResources() to the executer's thread.
    void resourcesRequested();
    /// The preference file "vxresourcemanager", in the robot's own shape.
    void resourcesReceived(VX::VXValue resources);
};

} // namespace RK
