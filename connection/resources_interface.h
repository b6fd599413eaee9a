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

// The resource preferences ("vxresourcemanager" of "VXPreferences"), passed
// on in the robot's own shape, and the current owners of the resources.
class NIMIOB_EXPORT ResourcesInterface : public QObject,
                                         public MorvaneInterface<ResourcesExecuter, ExecuterThread>
{
    Q_OBJECT

public:
    explicit ResourcesInterface(boost::shared_ptr<Connection> connection);
    ~ResourcesInterface() override;

    // Emits resourcesRequested(); nothing comes back when the read fails.
    void getResources();
    // "ownersGet" of "VXResourceManager"; an invalid value when it cannot be asked.
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
    void resourcesRequested();
    void resourcesReceived(VX::VXValue resources);
};

} // namespace RK
