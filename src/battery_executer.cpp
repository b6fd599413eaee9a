#include "battery_executer_p.h"

#include <connection/battery_interface.h>
#include <connection/connection.h>
#include <connection/platform.h>

namespace RK {

BatteryExecuter::BatteryExecuter(boost::shared_ptr<Connection> connection)
    : QObject(nullptr), m_connection(connection)
{ }

void BatteryExecuter::onGetBatteryLevel()
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection || !connection->batteryInterface())
        return;
    const boost::shared_ptr<VX::VXProxy> battery = connection->batteryDevice();
    if (!battery)
        return;
    try {
        emit updateBatteryLevelRequested(battery->call<int>("getBatteryCharge"));
    } catch (const std::exception &first) {
        try {
            emit updateBatteryLevelRequested(battery->call<int>("getBatteryLevel") * 20);
        } catch (const std::exception &) {
            // The first failure tells what went wrong; the fallback is a detail.
            emit error(QStringLiteral("VXSentinel"), tr("Failed to call"),
                       QString::fromUtf8(first.what()));
        }
    }
}

} // namespace RK
