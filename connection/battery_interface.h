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
class BatteryExecuter;

// The robot's charge in percent. When "getBatteryCharge" fails, the coarse
// "getBatteryLevel" (steps of 20 percent) stands in. Failures come
// out as errorOccurred(), and also as the executer's error(title, contents,
// details).
class NIMIOB_EXPORT BatteryInterface : public QObject,
                                       public MorvaneInterface<BatteryExecuter, ExecuterThread>
{
    Q_OBJECT

public:
    explicit BatteryInterface(boost::shared_ptr<Connection> connection);
    ~BatteryInterface() override;

    void getBatteryLevel();

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
    void getBatteryLevelRequested();
    // Carries the charge level in percent, whatever the parameter's name.
    void updateBatteryLevelRequested(int outputVolume);
};

} // namespace RK
