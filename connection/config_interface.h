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
class ConfigExecuter;

// The robot's model configuration ("VXRobotModel"). A failed getConfig gives
// no answer; a failed getConfigFile gives an empty text. Without the
// connection or the service neither answers.
class NIMIOB_EXPORT ConfigInterface : public QObject,
                                      public MorvaneInterface<ConfigExecuter, ExecuterThread>
{
    Q_OBJECT

public:
    explicit ConfigInterface(boost::shared_ptr<Connection> connection);
    ~ConfigInterface() override;

    // Emit the request signals.
    void getConfig();
    void getConfigFile();

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
    void getConfigRequested();
    void configFileRequested();
    void configReceived(QString config);
    void configFileReceived(QString configFile);
};

} // namespace RK
