#include "commands.h"
#include "console.h"
#include "device_support.h"

#include <connection/battery_interface.h>

namespace console {

// The charge in percent, with the robot's coarse level standing in when the
// charge cannot be read.
int batteryCommand(Console &console, const QStringList &arguments)
{
    if (!arguments.isEmpty()) {
        console.err() << "error: battery takes no argument" << Qt::endl;
        return ExitUsage;
    }
    const auto battery = console.manager().batteryInterface();
    if (!battery) {
        console.err() << "error: the connection has no battery interface" << Qt::endl;
        return ExitCommandFailed;
    }
    ExecuterErrors errors(battery->executerObject());
    int level = -1;
    QObject receiver;
    QObject::connect(battery.get(), &RK::BatteryInterface::updateBatteryLevelRequested, &receiver,
                     [&level](int value) { level = value; });
    battery->getBatteryLevel();
    drainExecuter(console, battery->executerObject(), 10000);
    console.waitUntil([&] { return level >= 0 || !errors.errors().empty(); }, 1000);
    if (errors.print(console))
        return ExitCommandFailed;
    if (level < 0) {
        console.out() << "Battery         no answer (the robot has no usable VXBattery)"
                      << Qt::endl;
        return ExitCommandFailed;
    }
    console.out() << "Battery         " << level << " %" << Qt::endl;
    return ExitOk;
}

} // namespace console
