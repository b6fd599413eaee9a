#pragma once

#include <connection/executer_thread.h>
#include <connection/morvane_interface.h>

#include <QObject>
#include <QString>

#include <boost/shared_ptr.hpp>

namespace RK {

class Connection;
class ConfigExecuter;

// The robot's model configuration ("VXRobotModel"). A failed getConfig gives
// no answer; a failed getConfigFile gives an empty text. Without the
// connection or the service neither answers.
class ConfigInterface : public QObject, public MorvaneInterface<ConfigExecuter, ExecuterThread>
{
    Q_OBJECT

public:
    explicit ConfigInterface(boost::shared_ptr<Connection> connection);
    ~ConfigInterface() override;

    // The executer, for diagnostics and for waiting on its queue.
    QObject *executerObject() const;

    // Emit the request signals.
    void getConfig();
    void getConfigFile();

signals:
    void getConfigRequested();
    void configFileRequested();
    void configReceived(QString config);
    void configFileReceived(QString configFile);
};

} // namespace RK
