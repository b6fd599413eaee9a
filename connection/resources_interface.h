#pragma once

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
    void resourcesRequested();
    void resourcesReceived(VX::VXValue resources);
};

} // namespace RK
