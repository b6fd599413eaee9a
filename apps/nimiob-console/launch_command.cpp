#include "kit.h"

#include <connection/launcher_interface.h>

namespace console {

// Runs a command on the robot (never on this machine) and waits for it.
int launchCommand(Console &console, const QStringList &arguments)
{
    // Everything after the command belongs to it, dashes included.
    if (arguments.isEmpty() || arguments.first().startsWith(QLatin1String("--"))) {
        console.err() << "error: launch wants a command" << Qt::endl;
        return ExitUsage;
    }
    if (const int status = need(console, {"VXLauncher"}, "launch"))
        return status;
    const auto launcher = console.manager().launcherInterface();
    if (!launcher)
        return missing(console, "VXLauncher", "launch");
    const QString command = arguments.first();
    std::vector<std::string> args;
    for (int i = 1; i < arguments.size(); ++i)
        args.push_back(arguments.at(i).toUtf8().toStdString());
    Waiter waiter(console);
    waiter.observe(launcher->executerObject(), QStringLiteral("VXLauncher"));
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
    // It runs as long as it runs: only the end of the connection or Ctrl-C
    // stop the wait.
    const Outcome outcome = waiter.wait([&] { return finished; });
    if (outcome != Outcome::Done)
        return waiter.fail(outcome, QStringLiteral("the command's end"));
    if (Waiter::tellsOfLoss(error))
        return waiter.fail(Outcome::Lost, QStringLiteral("the command's end"));
    if (!error.isEmpty()) {
        console.out() << "Failed          " << error << Qt::endl;
        return ExitCommandFailed;
    }
    console.out() << "Succeeded" << Qt::endl;
    return ExitOk;
}

} // namespace console
