#include "battery_executer_p.h"
#include "morvane_interface_p.h"

#include <connection/battery_interface.h>

namespace RK {

// Every member of the frame, for tests and diagnostics that reach them.
template class MorvaneInterface<BatteryExecuter, ExecuterThread>;

BatteryInterface::BatteryInterface(boost::shared_ptr<Connection> connection)
    : MorvaneInterface(connection, QStringLiteral("BatteryInterface"))
{
    forwardFailures(this);
    request(this, &BatteryInterface::getBatteryLevelRequested, &BatteryExecuter::onGetBatteryLevel);
    forward(&BatteryExecuter::updateBatteryLevelRequested, this,
            &BatteryInterface::updateBatteryLevelRequested);
}

BatteryInterface::~BatteryInterface() = default;

void BatteryInterface::getBatteryLevel()
{
    emit getBatteryLevelRequested();
}

} // namespace RK
