#include "kit.h"

#include <connection/robot_state_receiver.h>

namespace console {

// Switches the motors of a joint or a chain on or off (over 0.2 s).
int stiffCommand(Console &console, const QStringList &arguments)
{
    Arguments args(console, "stiff", arguments);
    const QStringList words = args.positional();
    if (words.size() != 2 || (words[1] != QLatin1String("on") && words[1] != QLatin1String("off")))
        args.fail(QStringLiteral("stiff takes NAME on|off"));
    if (const int status = args.finish())
        return status;
    if (const int status = need(console, {"VXMotion"}, "stiff"))
        return status;
    const boost::shared_ptr<RK::RobotStateReceiver> receiver
        = console.manager().robotStateReceiver();
    if (!receiver)
        return missing(console, "VXMotion", "stiff");
    if (!console.checkJoints({words[0]}))
        return ExitCommandFailed;
    Waiter waiter(console);
    waiter.observe(receiver->executerObject(), QStringLiteral("VXMotion"));
    const QFuture<void> done = receiver->setStiffness(words[0], words[1] == QLatin1String("on"));
    const Outcome outcome = waiter.await(done, console.options().answerMs);
    if (outcome != Outcome::Done)
        return waiter.fail(outcome, QStringLiteral("the stiffness change"));
    // The pool call reports through the executer's error signal, queued.
    const Outcome drained
        = waiter.drain(receiver->executerObject(), receiver.get(), console.options().answerMs);
    if (drained != Outcome::Done)
        return waiter.fail(drained, QStringLiteral("the stiffness change"));
    console.out() << "Stiffness of " << words[0] << " " << words[1] << "." << Qt::endl;
    return ExitOk;
}

} // namespace console
