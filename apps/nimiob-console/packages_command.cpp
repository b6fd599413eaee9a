#include "commands.h"
#include "console.h"

#include <connection/package_manager_interface.h>

#include <QFuture>

namespace console {

// Lists the installed packages: uuid, version, name.
int packagesCommand(Console &console, const QStringList &arguments)
{
    if (!arguments.isEmpty()) {
        console.err() << "error: packages takes no argument" << Qt::endl;
        return ExitUsage;
    }
    const auto packages = console.manager().packageManagerInterface();
    if (!packages) {
        console.err() << "error: the robot has no package manager" << Qt::endl;
        return ExitCommandFailed;
    }
    const QFuture<QVector<wz::PackageInfo>> future = packages->getPackages();
    console.waitUntil([&] { return future.isFinished(); }, 60000);
    if (!future.isFinished()) {
        console.err() << "error: no answer from the package manager" << Qt::endl;
        return ExitCommandFailed;
    }
    const QVector<wz::PackageInfo> all = future.result();
    for (const wz::PackageInfo &p : all) {
        QString name;
        try {
            name = QString::fromStdString(p.name());
        } catch (const std::exception &) {
            name = QStringLiteral("?");
        }
        console.out() << QString::fromStdString(p.uuid()).leftJustified(30) << "  "
                      << QString::fromStdString(p.version()).leftJustified(10) << "  " << name
                      << Qt::endl;
    }
    console.out() << all.size() << " package(s)" << Qt::endl;
    return ExitOk;
}

} // namespace console
