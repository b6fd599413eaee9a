#include "kit.h"

#include <connection/behavior_instance_manager.h>
#include <connection/behavior_manager_interface.h>

#include <QElapsedTimer>
#include <QObject>

#include <algorithm>

namespace console {

namespace {

const char *stateName(RK::BehaviorInstanceManager::State state)
{
    static const char *const names[]
        = {"Missing", "Preloading", "Preloaded", "Starting", "Running", "Stopping", "Stopped"};
    const int i = static_cast<int>(state);
    return i >= 0 && i < 7 ? names[i] : "?";
}

} // namespace

// Runs a behaviour and prints its states as they change, with times, until it
// ends, --for runs out (then it is stopped) or Ctrl-C (which stops it). Done
// means it ran and ended: a start the robot refused, a box error, or a
// behaviour that vanished is a failure.
int runCommand(Console &console, const QStringList &arguments)
{
    Arguments args(console, "run", arguments);
    int forMs = 0;
    args.duration("for", forMs);
    const QStringList words = args.positional();
    if (words.size() != 1)
        args.fail(QStringLiteral("run wants one behaviour name"));
    if (const int status = args.finish())
        return status;
    const QString name = words.first();
    if (const int status = need(console, {"VXBehaviorManager"}, "run"))
        return status;
    const auto behaviors = console.manager().behaviorManagerInterface();
    if (!behaviors)
        return missing(console, "VXBehaviorManager", "run");
    Waiter waiter(console);
    waiter.observe(behaviors->executerObject(), QStringLiteral("VXBehaviorManager"));

    using Instance = RK::BehaviorInstanceManager;
    const Options &options = console.options();
    // A name the robot does not know never gets a first state: ask first.
    const QFuture<QStringList> installed = behaviors->behaviorsInstalled();
    Outcome outcome = waiter.await(installed, options.answerMs);
    if (outcome != Outcome::Done)
        return waiter.fail(outcome, QStringLiteral("the installed behaviours"));
    const QStringList names = installed.result();
    if (std::none_of(names.begin(), names.end(),
                     [&](const QString &n) { return Instance::sameBehavior(n, name); })) {
        console.err() << "error: the robot has no behaviour \"" << name << "\"" << Qt::endl;
        return ExitCommandFailed;
    }
    QTextStream &out = console.out();
    QElapsedTimer clock;
    clock.start();
    auto stamp
        = [&clock] { return QStringLiteral("%1 s").arg(clock.elapsed() / 1000.0, 7, 'f', 3); };
    Instance instance(&console.manager(), name, QString(), false);
    bool present = false;
    bool ran = false;
    bool ended = false;
    bool vanished = false;
    QStringList problems;
    QObject::connect(&instance, &Instance::stateChanged, [&](Instance::State s) {
        out << stamp() << "  " << stateName(s) << Qt::endl;
        if (s == Instance::Running)
            ran = true;
        if (s == Instance::Stopped && !present) {
            present = true;
            instance.playBehavior();
        } else if (s == Instance::Stopped) {
            ended = true;
        } else if (s == Instance::Missing && present) {
            vanished = true;
        }
    });
    QObject::connect(&instance, &Instance::errorInBox, [&](QString box, QString error) {
        const QString text = QStringLiteral("error in box %1: %2")
                                 .arg(box.isEmpty() ? QStringLiteral("?") : box, error);
        out << stamp() << "  " << text << Qt::endl;
        problems << text;
    });
    QObject::connect(&instance, &Instance::errorStartingBehavior,
                     [&](QString title, QString message, QString details) {
                         const QString text = title + ": " + message + " " + details;
                         out << stamp() << "  " << text << Qt::endl;
                         problems << text;
                     });

    // Known to the robot: its first state comes.
    outcome = waiter.wait([&] { return present || vanished; }, options.answerMs);
    if (outcome == Outcome::TimedOut) {
        console.err() << "error: the robot has no behaviour \"" << name << "\"" << Qt::endl;
        return ExitCommandFailed;
    }
    if (outcome != Outcome::Done)
        return waiter.fail(outcome, QStringLiteral("the behaviour"));
    // Started: Running, or the start refused (it ends without running, or
    // never gets there).
    outcome = waiter.wait([&] { return ran || ended || vanished || !problems.isEmpty(); },
                          options.startMs);
    if (outcome == Outcome::Done && ran && !ended && !vanished && problems.isEmpty())
        outcome = waiter.wait([&] { return ended || vanished || !problems.isEmpty(); },
                              forMs > 0 ? std::max(1, forMs - int(clock.elapsed())) : -1);

    if (outcome == Outcome::Lost) {
        out << stamp() << "  the connection was lost (" << stateName(instance.state()) << ")"
            << Qt::endl;
        return waiter.fail(outcome, QStringLiteral("the behaviour to end"));
    }
    // Whatever ends the run, a behaviour still going is stopped; one that
    // never ran is only asked to stop, since nothing will say it did.
    const bool going = !ended && !vanished && instance.state() != Instance::Missing
        && instance.state() != Instance::Stopped;
    if (going)
        instance.stopBehavior();
    if (going && ran) {
        console.waitUntil([&] { return ended || vanished || !console.manager().isConnected(); },
                          options.answerMs);
    }
    out << stamp() << "  done (" << stateName(instance.state()) << ")" << Qt::endl;
    if (outcome == Outcome::Interrupted)
        return ExitInterrupted;
    if (outcome == Outcome::Failed)
        return waiter.fail(outcome, QStringLiteral("the behaviour"));
    if (vanished) {
        console.err() << "error: " << name << " vanished from the robot while it ran" << Qt::endl;
        return ExitCommandFailed;
    }
    if (!ran) {
        console.err() << "error: the robot did not start " << name
                      << (ended ? "" : QStringLiteral(" within %1 s").arg(options.startMs / 1000.0))
                      << Qt::endl;
        return ExitCommandFailed;
    }
    if (!problems.isEmpty()) {
        console.err() << "error: " << name << " ran with " << problems.size()
                      << " error(s): " << problems.first() << Qt::endl;
        return ExitCommandFailed;
    }
    return ExitOk;
}

} // namespace console
