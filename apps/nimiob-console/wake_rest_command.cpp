#include "commands.h"
#include "console.h"

#include <connection/connection.h>
#include <connection/platform.h>
#include <connection/robot_state_receiver.h>

namespace console {

namespace {

// Posts wakeUp or rest and waits until the robot reports the awake state
// that request leads to.
int changeAwakeState(Console &console, const QStringList &arguments, bool awake)
{
    if (!arguments.isEmpty()) {
        console.err() << "error: " << (awake ? "wake" : "rest") << " takes no argument" << Qt::endl;
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
    if (awake) {
        receiver->wakeUp();
        console.out() << "Waking the robot up." << Qt::endl;
    } else {
        receiver->rest();
        console.out() << "Putting the robot to rest." << Qt::endl;
    }
    bool done = false;
    console.waitUntil(
        [&] {
            try {
                done = motion->robotIsWakeUp() == awake;
            } catch (const std::exception &) { }
            return done;
        },
        10000);
    console.out() << "Awake: " << ((done ? awake : !awake) ? "yes" : "no") << Qt::endl;
    return done ? ExitOk : ExitCommandFailed;
}

} // namespace

int wakeCommand(Console &console, const QStringList &arguments)
{
    return changeAwakeState(console, arguments, true);
}

int restCommand(Console &console, const QStringList &arguments)
{
    return changeAwakeState(console, arguments, false);
}

} // namespace console
