#include "kit.h"

#include <connection/package_manager_interface.h>

#include <QFuture>

namespace console {

// Lists the installed packages: uuid, version, name.
int packagesCommand(Console &console, const QStringList &arguments)
{
    Arguments args(console, "packages", arguments);
    if (const int status = args.finish())
        return status;
    if (const int status = need(console, {"PackageManager"}, "packages"))
        return status;
    const auto packages = console.manager().packageManagerInterface();
    if (!packages)
        return missing(console, "PackageManager", "packages");
    Waiter waiter(console);
    waiter.observe(packages->executerObject(), QStringLiteral("PackageManager"));
    const QFuture<QVector<wz::PackageInfo>> future = packages->getPackages();
    const Outcome outcome = waiter.await(future, console.options().answerMs);
    if (outcome != Outcome::Done)
        return waiter.fail(outcome, QStringLiteral("the package list"));
    const QVector<wz::PackageInfo> all = future.result();
    QJsonArray list;
    for (const wz::PackageInfo &p : all) {
        QString name;
        try {
            name = QString::fromStdString(p.name());
        } catch (const std::exception &) {
            name = QStringLiteral("?");
        }
        const QString uuid = QString::fromStdString(p.uuid());
        const QString version = QString::fromStdString(p.version());
        if (console.json())
            list.append(QJsonObject {{QStringLiteral("uuid"), uuid},
                                     {QStringLiteral("version"), version},
                                     {QStringLiteral("name"), name}});
        else
            console.out() << uuid.leftJustified(30) << "  " << version.leftJustified(10) << "  "
                          << name << Qt::endl;
    }
    if (console.json())
        printJson(console, {{QStringLiteral("packages"), list}});
    else
        console.out() << all.size() << " package(s)" << Qt::endl;
    return ExitOk;
}

} // namespace console
