#include "commands.h"
#include "console.h"

#include <connection/robot_state_receiver.h>

namespace console {

// Switches the motors of a joint or a chain on or off (over 0.2 s).
int stiffCommand(Console &console, const QStringList &arguments)
{
    if (arguments.size() != 2
        || (arguments[1] != QLatin1String("on") && arguments[1] != QLatin1String("off"))) {
        console.err() << "error: stiff takes NAME on|off" << Qt::endl;
        return ExitUsage;
    }
    const boost::shared_ptr<RK::RobotStateReceiver> receiver
        = console.manager().robotStateReceiver();
    if (!receiver) {
        console.err() << "error: the connection has no joint commands" << Qt::endl;
        return ExitCommandFailed;
    }
    if (!console.checkJoints({arguments[0]}))
        return ExitCommandFailed;
    receiver->setStiffness(arguments[0], arguments[1] == QLatin1String("on")).waitForFinished();
    console.out() << "Stiffness of " << arguments[0] << " " << arguments[1] << "." << Qt::endl;
    return ExitOk;
}

} // namespace console
