#pragma once

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
// "getBatteryLevel" (steps of 20 percent) stands in. Failures come out of
// the executer's error(QString title, QString contents, QString details):
// connect to executerObject() for them.
class NIMIOB_EXPORT BatteryInterface : public QObject,
                                       public MorvaneInterface<BatteryExecuter, ExecuterThread>
{
    Q_OBJECT

public:
    explicit BatteryInterface(boost::shared_ptr<Connection> connection);
    ~BatteryInterface() override;

    void getBatteryLevel();

signals:
    void getBatteryLevelRequested();
    // Carries the charge level in percent, whatever the parameter's name.
    void updateBatteryLevelRequested(int outputVolume);
};

} // namespace RK
