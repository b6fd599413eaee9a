#include "commands.h"
#include "console.h"

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
    if (!arguments.isEmpty()) {
        console.err() << "error: behaviors takes no argument" << Qt::endl;
        return ExitUsage;
    }
    const boost::shared_ptr<RK::BehaviorManagerInterface> behaviors
        = console.manager().behaviorManagerInterface();
    if (!behaviors) {
        console.err() << "error: the connection has no behaviour manager interface" << Qt::endl;
        return ExitCommandFailed;
    }
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
    if (!console.waitUntil([&] { return answers >= 4; }, 10000)) {
        console.err() << "error: the robot did not answer every list (a failed call is in the "
                         "log)"
                      << Qt::endl;
        return ExitCommandFailed;
    }
    QTextStream &out = console.out();
    printList(out, "Installed", installed);
    printList(out, "Running", running);
    printList(out, "Default", defaults);
    printList(out, "Box libraries", libraries);
    return ExitOk;
}

} // namespace console
