#include "commands.h"
#include "console.h"

#include <connection/package_manager_interface.h>

#include <QFuture>

namespace console {

// Removes one or several packages by uuid.
int uninstallCommand(Console &console, const QStringList &arguments)
{
    if (arguments.isEmpty()) {
        console.err() << "error: uninstall wants UUID..." << Qt::endl;
        return ExitUsage;
    }
    const auto packages = console.manager().packageManagerInterface();
    if (!packages) {
        console.err() << "error: the robot has no package manager" << Qt::endl;
        return ExitCommandFailed;
    }
    const QFuture<QStringList> future = packages->removeSeveral(arguments);
    console.waitUntil([&] { return future.isFinished(); }, 60000);
    if (!future.isFinished()) {
        console.err() << "error: no answer from the package manager" << Qt::endl;
        return ExitCommandFailed;
    }
    const QStringList errors = future.result();
    for (const QString &e : errors)
        console.err() << "error: " << e << Qt::endl;
    if (!errors.isEmpty())
        return ExitCommandFailed;
    console.out() << "Removed " << arguments.join(QStringLiteral(", ")) << Qt::endl;
    return ExitOk;
}

} // namespace console
