#include "battery_executer_p.h"
#include "executer_call_p.h"

#include "connection_p.h"
#include <connection/battery_interface.h>
#include <connection/platform.h>

#include <exception>

namespace RK {

BatteryExecuter::BatteryExecuter(boost::shared_ptr<Connection> connection)
    : QObject(nullptr), m_connection(connection)
{ }

void BatteryExecuter::onGetBatteryLevel()
{
    executerCall(this, m_connection, "getBatteryLevel")
        .signal(QStringLiteral("VXSentinel"), tr("Failed to call"))
        .run(&Connection::batteryDevice, [this](VX::VXProxy &battery) {
            int percent = 0;
            try {
                percent = battery.call<int>("getBatteryCharge");
            } catch (const std::exception &) {
                // The coarse level stands in; if it fails too, the first
                // failure is the one that tells what went wrong.
                const std::exception_ptr first = std::current_exception();
                try {
                    percent = battery.call<int>("getBatteryLevel") * 20;
                } catch (const std::exception &) {
                    std::rethrow_exception(first);
                }
            }
            emit updateBatteryLevelRequested(percent);
        });
}

} // namespace RK
