#include "commands.h"
#include "console.h"

#include <connection/connection.h>
#include <connection/platform.h>
#include <connection/robot_state_receiver.h>

namespace console {

// Posts wakeUp and waits until the robot reports its new state.
int wakeCommand(Console &console, const QStringList &arguments)
{
    if (!arguments.isEmpty()) {
        console.err() << "error: wake takes no argument" << Qt::endl;
        return ExitUsage;
    }
    const boost::shared_ptr<RK::RobotStateReceiver> receiver
        = console.manager().robotStateReceiver();
    const boost::shared_ptr<RK::Connection> connection = console.manager().currentConnection();
    const boost::shared_ptr<VX::VXMotionProxy> motion
        = connection ? connection->motion() : boost::shared_ptr<VX::VXMotionProxy>();
    if (!receiver || !motion) {
        console.err() << "error: the robot has no motion service" << Qt::endl;
        return ExitCommandFailed;
    }
    receiver->wakeUp();
    console.out() << "Waking the robot up." << Qt::endl;
    const bool wanted = true;
    bool done = false;
    console.waitUntil(
        [&] {
            try {
                done = motion->robotIsWakeUp() == wanted;
            } catch (const std::exception &) { }
            return done;
        },
        10000);
    console.out() << "Awake: " << ((done ? wanted : !wanted) ? "yes" : "no") << Qt::endl;
    return done ? ExitOk : ExitCommandFailed;
}

} // namespace console
