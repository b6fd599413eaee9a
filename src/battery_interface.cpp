#include "battery_executer_p.h"

#include <connection/battery_interface.h>

namespace RK {

BatteryInterface::BatteryInterface(boost::shared_ptr<Connection> connection)
    : MorvaneInterface(connection, QStringLiteral("BatteryInterface"))
{
    request(this, &BatteryInterface::getBatteryLevelRequested, &BatteryExecuter::onGetBatteryLevel);
    forward(&BatteryExecuter::updateBatteryLevelRequested, this,
            &BatteryInterface::updateBatteryLevelRequested);
}

BatteryInterface::~BatteryInterface() = default;

void BatteryInterface::getBatteryLevel()
{
    emit getBatteryLevelRequested();
}

QObject *BatteryInterface::executerObject() const
{
    return executer();
}

} // namespace RK
