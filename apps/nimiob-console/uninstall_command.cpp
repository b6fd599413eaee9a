#include "kit.h"

#include <connection/package_manager_interface.h>

#include <QFuture>

namespace console {

// Removes one or several packages by uuid.
int uninstallCommand(Console &console, const QStringList &arguments)
{
    Arguments args(console, "uninstall", arguments);
    const QStringList uuids = args.positional();
    if (uuids.isEmpty())
        args.fail(QStringLiteral("uninstall wants UUID..."));
    if (const int status = args.finish())
        return status;
    if (const int status = need(console, {"PackageManager"}, "uninstall"))
        return status;
    const auto packages = console.manager().packageManagerInterface();
    if (!packages)
        return missing(console, "PackageManager", "uninstall");
    Waiter waiter(console);
    waiter.observe(packages->executerObject(), QStringLiteral("PackageManager"));
    const QFuture<QStringList> future = packages->removeSeveral(uuids);
    const Outcome outcome = waiter.await(future, console.options().answerMs);
    if (outcome != Outcome::Done)
        return waiter.fail(outcome, QStringLiteral("the removal"));
    const QStringList errors = future.result();
    for (const QString &e : errors)
        console.err() << "error: " << e << Qt::endl;
    if (!errors.isEmpty())
        return ExitCommandFailed;
    console.out() << "Removed " << uuids.join(QStringLiteral(", ")) << Qt::endl;
    return ExitOk;
}

} // namespace console
