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

/// The robot's charge in percent. When "getBatteryCharge" fails, the coarse
/// "getBatteryLevel" (steps of 20 percent) stands in. Failures come
/// out as errorOccurred(), and also as the executer's error(title, contents,
/// details).
///
/// \b Thread and \b ownership as for every interface (see MorvaneInterface):
/// it lives on the connection's worker thread and its signals come on library
/// threads, so connect them with a receiver object on the GUI thread. It is
/// new at every connection, shared by the connection and the holders of
/// ConnectionManager::batteryInterface(): drop the pointer on
/// ConnectionManager::disconnected(). Its methods return at once and may be
/// called from any thread.
class NIMIOB_EXPORT BatteryInterface : public QObject,
                                       public MorvaneInterface<BatteryExecuter, ExecuterThread>
{
    Q_OBJECT

public:
    /// Made by the connection's worker thread; applications take it from
    /// ConnectionManager::batteryInterface().
    explicit BatteryInterface(boost::shared_ptr<Connection> connection);
    /// Waits for the calls it started and for its executer's thread.
    ~BatteryInterface() override;

    /// Asks for the charge; updateBatteryLevelRequested() answers, or
    /// errorOccurred() when neither call succeeds.
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
    /// Carries getBatteryLevel() to the executer's thread.
    void getBatteryLevelRequested();
    /// The robot's charge, 0 to 100 percent (in steps of 20 when only
    /// "getBatteryLevel" answered), whatever the parameter's name.
    void updateBatteryLevelRequested(int outputVolume);
};

} // namespace RK
