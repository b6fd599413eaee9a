#include "commands.h"
#include "console.h"

#include <connection/launcher_interface.h>

namespace console {

// Runs a command on the robot (never on this machine) and waits for it.
int launchCommand(Console &console, const QStringList &arguments)
{
    if (arguments.isEmpty()) {
        console.err() << "error: launch wants a command" << Qt::endl;
        return ExitUsage;
    }
    const auto launcher = console.manager().launcherInterface();
    if (!launcher)
        return ExitCommandFailed;
    const QString command = arguments.first();
    std::vector<std::string> args;
    for (int i = 1; i < arguments.size(); ++i)
        args.push_back(arguments.at(i).toUtf8().toStdString());
    bool finished = false;
    QString error;
    QObject receiver;
    QObject::connect(launcher.get(), &RK::LauncherInterface::launchWaitFinished, &receiver,
                     [&](const QString &text) {
                         error = text;
                         finished = true;
                     });
    console.out() << "Running on the robot: " << arguments.join(QLatin1Char(' ')) << Qt::endl;
    launcher->launchWait(command, args);
    if (!console.waitUntil([&] { return finished; }, 600000)) {
        console.err() << "error: the command had not ended after 10 minutes" << Qt::endl;
        return ExitCommandFailed;
    }
    if (!error.isEmpty()) {
        console.out() << "Failed          " << error << Qt::endl;
        return ExitCommandFailed;
    }
    console.out() << "Succeeded" << Qt::endl;
    return ExitOk;
}

} // namespace console
