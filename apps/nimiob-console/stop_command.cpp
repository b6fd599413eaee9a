#include "commands.h"
#include "console.h"

#include <connection/behavior_manager_interface.h>

#include <QFuture>
#include <QObject>

namespace console {

// Stops one behaviour, or all of them, and waits for the robot's running list.
int stopCommand(Console &console, const QStringList &arguments)
{
    if (arguments.size() != 1) {
        console.err() << "error: stop wants a behaviour name or --all" << Qt::endl;
        return ExitUsage;
    }
    const boost::shared_ptr<RK::BehaviorManagerInterface> behaviors
        = console.manager().behaviorManagerInterface();
    if (!behaviors) {
        console.err() << "error: the connection has no behaviour manager interface" << Qt::endl;
        return ExitCommandFailed;
    }
    QStringList running;
    bool answered = false;
    QObject receiver;
    QObject::connect(behaviors.get(), &RK::BehaviorManagerInterface::runningBehaviorsUpdated,
                     &receiver, [&](QStringList l) {
                         running = l;
                         answered = true;
                     });
    const QString name = arguments.first();
    if (name == QLatin1String("--all")) {
        behaviors->stopAll();
    } else {
        QFuture<bool> isRunning = behaviors->isBehaviorRunning(name);
        console.waitUntil([&] { return isRunning.isFinished(); }, 10000);
        if (!isRunning.isFinished() || !isRunning.result()) {
            console.out() << name << " is not running" << Qt::endl;
            return ExitCommandFailed;
        }
        QFuture<void> stop = behaviors->stopBehavior(name);
        console.waitUntil([&] { return stop.isFinished(); }, 10000);
    }
    behaviors->requestRunningBehaviors();
    if (!console.waitUntil([&] { return answered; }, 10000)) {
        console.err() << "error: no running list from the robot" << Qt::endl;
        return ExitCommandFailed;
    }
    console.out() << "Running now: "
                  << (running.isEmpty() ? QStringLiteral("none") : running.join(", ")) << Qt::endl;
    return ExitOk;
}

} // namespace console
