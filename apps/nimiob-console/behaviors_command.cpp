#include "kit.h"

#include <connection/behavior_manager_interface.h>

#include <QObject>

namespace console {

namespace {

void printList(QTextStream &out, const char *title, const QStringList &names)
{
    out << title << " (" << names.size() << "):" << Qt::endl;
    for (const QString &name : names)
        out << "  " << name << Qt::endl;
}

} // namespace

// Lists the installed, running and default behaviours and the box libraries.
int behaviorsCommand(Console &console, const QStringList &arguments)
{
    Arguments args(console, "behaviors", arguments);
    if (const int status = args.finish())
        return status;
    if (const int status = need(console, {"VXBehaviorManager"}, "behaviors"))
        return status;
    const boost::shared_ptr<RK::BehaviorManagerInterface> behaviors
        = console.manager().behaviorManagerInterface();
    if (!behaviors)
        return missing(console, "VXBehaviorManager", "behaviors");
    Waiter waiter(console);
    waiter.observe(behaviors->executerObject(), QStringLiteral("VXBehaviorManager"));
    QStringList installed, running, defaults, libraries;
    int answers = 0;
    QObject receiver;
    using I = RK::BehaviorManagerInterface;
    QObject::connect(behaviors.get(), &I::behaviorsReceived, &receiver, [&](QStringList l) {
        installed = l;
        ++answers;
    });
    QObject::connect(behaviors.get(), &I::runningBehaviorsUpdated, &receiver, [&](QStringList l) {
        running = l;
        ++answers;
    });
    QObject::connect(behaviors.get(), &I::defaultBehaviorsReceived, &receiver, [&](QStringList l) {
        defaults = l;
        ++answers;
    });
    QObject::connect(behaviors.get(), &I::installedBoxLibrariesReceived, &receiver,
                     [&](QStringList l) {
                         libraries = l;
                         ++answers;
                     });
    behaviors->requestBehaviors();
    behaviors->requestRunningBehaviors();
    behaviors->requestDefaultBehaviors();
    behaviors->requestInstalledBoxLibraries();
    // A list the robot fails to give is only logged: the drain tells that
    // every request has run, and a missing answer is then a failure.
    const Outcome outcome
        = waiter.drain(behaviors->executerObject(), behaviors.get(), console.options().answerMs);
    if (outcome != Outcome::Done)
        return waiter.fail(outcome, QStringLiteral("the behaviour lists"));
    if (answers < 4) {
        console.err() << "error: the robot did not give every list (" << answers << " of 4 came)"
                      << Qt::endl;
        return ExitCommandFailed;
    }
    if (console.json()) {
        printJson(console,
                  {{QStringLiteral("installed"), jsonList(installed)},
                   {QStringLiteral("running"), jsonList(running)},
                   {QStringLiteral("default"), jsonList(defaults)},
                   {QStringLiteral("boxLibraries"), jsonList(libraries)}});
        return ExitOk;
    }
    QTextStream &out = console.out();
    printList(out, "Installed", installed);
    printList(out, "Running", running);
    printList(out, "Default", defaults);
    printList(out, "Box libraries", libraries);
    return ExitOk;
}

} // namespace console
