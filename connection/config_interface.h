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

/// The robot's model configuration ("VXRobotModel"). A failed getConfig gives
/// no answer; a failed getConfigFile gives an empty text. Without the
/// connection or the service neither answers.
///
/// \b Thread and \b ownership as for every interface (see MorvaneInterface):
/// it lives on the connection's worker thread and its signals come on library
/// threads, so connect them with a receiver object on the GUI thread. It is
/// new at every connection, shared by the connection and the holders of
/// ConnectionManager::configInterface(): drop the pointer on
/// ConnectionManager::disconnected(). Its methods return at once and may be
/// called from any thread.
class NIMIOB_EXPORT ConfigInterface : public QObject,
                                      public MorvaneInterface<ConfigExecuter, ExecuterThread>
{
    Q_OBJECT

public:
    /// Made by the connection's worker thread; applications take it from
    /// ConnectionManager::configInterface().
    explicit ConfigInterface(boost::shared_ptr<Connection> connection);
    /// Waits for the calls it started and for its executer's thread.
    ~ConfigInterface() override;

    /// Asks for the robot's configuration; configReceived() answers.
    void getConfig();
    /// Asks for the robot's configuration file; configFileReceived() answers.
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
    /// Carries getConfig() to the executer's thread.
    void getConfigRequested();
    /// Carries getConfigFile() to the executer's thread.
    void configFileRequested();
    /// The text "getConfig" of the robot's configuration service returned.
    void configReceived(QString config);
    /// The text "getConfigFile" of the robot's configuration service returned.
    void configFileReceived(QString configFile);
};

} // namespace RK
