#include "commands.h"
#include "console.h"

#include <connection/robot_state_receiver.h>

namespace console {

// Moves joints: JOINT=RAD pairs, posted unless --wait.
int moveCommand(Console &console, const QStringList &arguments)
{
    RobotPose pose;
    float speed = 0.5f;
    bool wait = false;
    for (int i = 0; i < arguments.size(); ++i) {
        const QString &arg = arguments.at(i);
        bool ok = false;
        if (arg == QLatin1String("--wait")) {
            wait = true;
            continue;
        }
        if (arg == QLatin1String("--speed")) {
            speed = i + 1 < arguments.size() ? arguments.at(++i).toFloat(&ok) : 0.0f;
            ok = ok && speed > 0.0f && speed <= 1.0f;
        } else {
            const QStringList parts = arg.split(QLatin1Char('='));
            if (parts.size() == 2 && !parts[0].isEmpty()) {
                pose.insert(parts[0], parts[1].toDouble(&ok));
            }
        }
        if (!ok) {
            console.err() << "error: move takes JOINT=RAD... [--speed 0-1] [--wait], not " << arg
                          << Qt::endl;
            return ExitUsage;
        }
    }
    if (pose.isEmpty()) {
        console.err() << "error: move needs at least one JOINT=RAD" << Qt::endl;
        return ExitUsage;
    }
    const boost::shared_ptr<RK::RobotStateReceiver> receiver
        = console.manager().robotStateReceiver();
    if (!receiver) {
        console.err() << "error: the connection has no joint commands" << Qt::endl;
        return ExitCommandFailed;
    }
    if (!console.checkJoints(pose.keys()))
        return ExitCommandFailed;
    if (wait) {
        receiver->sendMotorAnglesBlocking(pose, speed);
        console.out() << "Moved " << pose.keys().join(QLatin1Char(' ')) << "." << Qt::endl;
    } else {
        receiver->sendMotorAngles(pose, speed);
        // Let the post leave before the connection goes.
        console.waitUntil([] { return false; }, 200);
        console.out() << "Sent " << pose.keys().join(QLatin1Char(' ')) << " (posted)." << Qt::endl;
    }
    return ExitOk;
}

} // namespace console
