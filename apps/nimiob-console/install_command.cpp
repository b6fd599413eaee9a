#include "commands.h"
#include "console.h"

#include <connection/http_project_synchronizer.h>
#include <connection/package_manager_interface.h>

#include <QFuture>
#include <QObject>

#include <csignal>

namespace console {

namespace {

volatile std::sig_atomic_t g_installInterrupted = 0;

void onInstallInterrupt(int)
{
    g_installInterrupted = 1;
}

} // namespace

// Sends a package file to the robot and installs it; Ctrl-C cancels the transfer.
int installCommand(Console &console, const QStringList &arguments)
{
    if (arguments.size() != 1 || arguments[0].startsWith(QLatin1String("--"))) {
        console.err() << "error: install wants FILE" << Qt::endl;
        return ExitUsage;
    }
    const auto packages = console.manager().packageManagerInterface();
    if (!packages) {
        console.err() << "error: the robot has no package manager" << Qt::endl;
        return ExitCommandFailed;
    }
    RK::HttpProjectSynchronizer sync;
    QObject receiver;
    QObject::connect(&sync, &RK::ProjectSynchronizer::stateChanged, &receiver,
                     [&](const QString &text) { console.out() << text << Qt::endl; });
    g_installInterrupted = 0;
    const auto previous = std::signal(SIGINT, onInstallInterrupt);
    const QFuture<QString> future = packages->installFromRemote(&sync, arguments[0], QString());
    bool cancelled = false;
    while (!future.isFinished()) {
        console.waitUntil([&] { return future.isFinished() || g_installInterrupted != 0; },
                          86400000);
        if (g_installInterrupted && !cancelled) {
            cancelled = true;
            sync.cancel();
        }
    }
    std::signal(SIGINT, previous);
    const QString error = future.result();
    if (cancelled) {
        console.out() << "Install cancelled." << Qt::endl;
        return 130;
    }
    if (!error.isEmpty()) {
        console.err() << "error: " << error << Qt::endl;
        return ExitCommandFailed;
    }
    console.out() << "Installed " << arguments[0] << Qt::endl;
    return ExitOk;
}

} // namespace console
