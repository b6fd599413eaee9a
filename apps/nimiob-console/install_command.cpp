#include "kit.h"

#include <connection/http_project_synchronizer.h>
#include <connection/package_manager_interface.h>

#include <QFileInfo>
#include <QFuture>
#include <QObject>

namespace console {

// Sends a package file to the robot and installs it; Ctrl-C cancels the transfer.
int installCommand(Console &console, const QStringList &arguments)
{
    Arguments args(console, "install", arguments);
    const QStringList words = args.positional();
    if (words.size() != 1)
        args.fail(QStringLiteral("install wants FILE"));
    else if (!QFileInfo(words[0]).isFile())
        args.fail(words[0] + QStringLiteral(" is not a file"));
    if (const int status = args.finish())
        return status;
    if (const int status = need(console, {"PackageManager"}, "install"))
        return status;
    const auto packages = console.manager().packageManagerInterface();
    if (!packages)
        return missing(console, "PackageManager", "install");
    Waiter waiter(console);
    waiter.observe(packages->executerObject(), QStringLiteral("PackageManager"));
    RK::HttpProjectSynchronizer sync;
    QObject receiver;
    QObject::connect(&sync, &RK::ProjectSynchronizer::stateChanged, &receiver,
                     [&](const QString &text) { console.out() << text << Qt::endl; });
    const QFuture<QString> future = packages->installFromRemote(&sync, words[0], QString());
    const Outcome outcome = waiter.await(future, -1);
    if (outcome == Outcome::Interrupted) {
        sync.cancel();
        // The installation holds the synchronizer: it must be over before
        // the synchronizer goes (a second Ctrl-C ends the process).
        console.waitUntil([&] { return future.isFinished(); }, 86400000);
        console.err() << "Install cancelled." << Qt::endl;
        return ExitInterrupted;
    }
    if (outcome != Outcome::Done)
        return waiter.fail(outcome, QStringLiteral("the installation"));
    const QString error = future.result();
    if (!error.isEmpty()) {
        console.err() << "error: " << error << Qt::endl;
        return ExitCommandFailed;
    }
    console.out() << "Installed " << words[0] << Qt::endl;
    return ExitOk;
}

} // namespace console
