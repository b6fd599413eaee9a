#include "kit.h"

#include <connection/battery_interface.h>

namespace console {

// The charge in percent.
int batteryCommand(Console &console, const QStringList &arguments)
{
    Arguments args(console, "battery", arguments);
    if (const int status = args.finish())
        return status;
    if (const int status = need(console, {"VXBattery"}, "battery"))
        return status;
    const auto battery = console.manager().batteryInterface();
    if (!battery)
        return missing(console, "VXBattery", "battery");
    Waiter waiter(console);
    waiter.observe(battery->executerObject(), QStringLiteral("VXBattery"));
    int level = -1;
    QObject receiver;
    QObject::connect(battery.get(), &RK::BatteryInterface::updateBatteryLevelRequested, &receiver,
                     [&level](int value) { level = value; });
    battery->getBatteryLevel();
    const Outcome outcome
        = waiter.drain(battery->executerObject(), battery.get(), console.options().answerMs);
    if (outcome != Outcome::Done)
        return waiter.fail(outcome, QStringLiteral("the battery's charge"));
    if (level < 0) {
        console.err() << "error: VXBattery gave no charge" << Qt::endl;
        return ExitCommandFailed;
    }
    if (console.json())
        printJson(console, {{QStringLiteral("charge"), level}});
    else
        console.out() << "Battery         " << level << " %" << Qt::endl;
    return ExitOk;
}

} // namespace console
