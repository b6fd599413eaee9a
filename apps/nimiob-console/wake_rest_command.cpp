#include "kit.h"

#include "connection_manager_p.h"
#include "connection_p.h"
#include <connection/platform.h>
#include <connection/robot_state_receiver.h>

namespace console {

namespace {

// Posts wakeUp or rest and waits until the robot reports the awake state
// that request leads to.
int changeAwakeState(Console &console, const QStringList &arguments, bool awake)
{
    const char *name = awake ? "wake" : "rest";
    Arguments args(console, name, arguments);
    if (const int status = args.finish())
        return status;
    if (const int status = need(console, {"VXMotion"}, name))
        return status;
    const boost::shared_ptr<RK::RobotStateReceiver> receiver
        = console.manager().robotStateReceiver();
    const boost::shared_ptr<RK::Connection> connection = RK::currentConnection(console.manager());
    const boost::shared_ptr<VX::VXMotionProxy> motion
        = connection ? connection->motion() : boost::shared_ptr<VX::VXMotionProxy>();
    if (!receiver || !motion)
        return missing(console, "VXMotion", name);
    Waiter waiter(console);
    waiter.observe(receiver->executerObject(), QStringLiteral("VXMotion"));
    if (awake) {
        receiver->wakeUp();
        console.out() << "Waking the robot up." << Qt::endl;
    } else {
        receiver->rest();
        console.out() << "Putting the robot to rest." << Qt::endl;
    }
    bool reached = false;
    QString readError;
    const Outcome outcome = waiter.wait(
        [&] {
            try {
                reached = motion->robotIsWakeUp() == awake;
            } catch (const std::exception &e) {
                readError = QString::fromUtf8(e.what());
            }
            return reached;
        },
        console.options().answerMs);
    if (outcome == Outcome::TimedOut) {
        console.err() << "error: the robot is still " << (awake ? "resting" : "awake") << " after "
                      << console.options().answerMs / 1000.0 << " s"
                      << (readError.isEmpty() ? QString() : QStringLiteral(" (") + readError + ')')
                      << Qt::endl;
        return ExitCommandFailed;
    }
    if (outcome != Outcome::Done)
        return waiter.fail(outcome, QStringLiteral("the robot's awake state"));
    console.out() << "Awake: " << (awake ? "yes" : "no") << Qt::endl;
    return ExitOk;
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
