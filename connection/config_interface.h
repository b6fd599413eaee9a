#pragma once

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
    void getConfigRequested();
    void configFileRequested();
    void configReceived(QString config);
    void configFileReceived(QString configFile);
};

} // namespace RK
