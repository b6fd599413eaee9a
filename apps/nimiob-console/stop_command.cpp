#include "kit.h"

#include <connection/behavior_instance_manager.h>
#include <connection/behavior_manager_interface.h>

#include <QFuture>
#include <QObject>

#include <algorithm>

namespace console {

// Stops one behaviour, or all of them, and waits for the robot's running list.
int stopCommand(Console &console, const QStringList &arguments)
{
    Arguments args(console, "stop", arguments);
    const bool all = args.flag("all");
    const QStringList words = args.positional();
    if (all ? !words.isEmpty() : words.size() != 1)
        args.fail(QStringLiteral("stop wants a behaviour name or --all"));
    if (const int status = args.finish())
        return status;
    if (const int status = need(console, {"VXBehaviorManager"}, "stop"))
        return status;
    const boost::shared_ptr<RK::BehaviorManagerInterface> behaviors
        = console.manager().behaviorManagerInterface();
    if (!behaviors)
        return missing(console, "VXBehaviorManager", "stop");
    Waiter waiter(console);
    waiter.observe(behaviors->executerObject(), QStringLiteral("VXBehaviorManager"));
    const int answerMs = console.options().answerMs;
    QStringList running;
    bool answered = false;
    QObject receiver;
    QObject::connect(behaviors.get(), &RK::BehaviorManagerInterface::runningBehaviorsUpdated,
                     &receiver, [&](QStringList l) {
                         running = l;
                         answered = true;
                     });
    Outcome outcome = Outcome::Done;
    if (all) {
        behaviors->stopAll();
    } else {
        const QString name = words.first();
        const QFuture<bool> isRunning = behaviors->isBehaviorRunning(name);
        outcome = waiter.await(isRunning, answerMs);
        if (outcome != Outcome::Done)
            return waiter.fail(outcome, QStringLiteral("the running state of ") + name);
        if (!isRunning.result()) {
            console.err() << "error: " << name << " is not running" << Qt::endl;
            return ExitCommandFailed;
        }
        outcome = waiter.await(behaviors->stopBehavior(name), answerMs);
        if (outcome != Outcome::Done)
            return waiter.fail(outcome, QStringLiteral("the stop of ") + name);
    }
    behaviors->requestRunningBehaviors();
    outcome = waiter.wait([&] { return answered; }, answerMs);
    if (outcome != Outcome::Done)
        return waiter.fail(outcome, QStringLiteral("the running list"));
    console.out() << "Running now: "
                  << (running.isEmpty() ? QStringLiteral("none") : running.join(", ")) << Qt::endl;
    const bool still = std::any_of(running.begin(), running.end(), [&](const QString &r) {
        return RK::BehaviorInstanceManager::sameBehavior(r, words.value(0));
    });
    if (!all && still) {
        console.err() << "error: " << words.first() << " is still running" << Qt::endl;
        return ExitCommandFailed;
    }
    return ExitOk;
}

} // namespace console
