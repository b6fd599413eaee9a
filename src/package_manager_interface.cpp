#include <connection/package_manager_interface.h>

#include "morvane_interface_p.h"
#include "package_manager_executer_p.h"

namespace RK {

PackageManagerInterface::PackageManagerInterface(boost::shared_ptr<Connection> connection)
    : MorvaneInterface(connection, QStringLiteral("PackageManagerInterface"))
{
    forwardFailures(this);
    qRegisterMetaType<wz::PackageInfo>("wz::PackageInfo");
    forward(&PackageManagerExecuter::packageInstalled, this,
            &PackageManagerInterface::packageInstalled);
    forward(&PackageManagerExecuter::packageRemoved, this,
            &PackageManagerInterface::packageRemoved);
}

// Before the base waits for the calls still running: an install's upload
// goes over its own connection, which the session's end does not cut.
PackageManagerInterface::~PackageManagerInterface()
{
    executer()->cancelTransfers();
}

QFuture<QVector<wz::PackageInfo>> PackageManagerInterface::getPackages()
{
    return run(&PackageManagerExecuter::getPackages);
}

QFuture<wz::PackageInfo> PackageManagerInterface::getPackage(const QString &uuid)
{
    return run(&PackageManagerExecuter::getPackage, uuid);
}

QFuture<QImage> PackageManagerInterface::getPackageIcon(const QString &uuid)
{
    return run(&PackageManagerExecuter::getPackageIcon, uuid);
}

QFuture<QPair<QString, QString>>
PackageManagerInterface::openFileTransferSession(const QString &name)
{
    return run(&PackageManagerExecuter::openFileTransferSession, name);
}

QFuture<void> PackageManagerInterface::closeFileTransferSession(const QString &session)
{
    return run(&PackageManagerExecuter::closeFileTransferSession, session);
}

QFuture<QString> PackageManagerInterface::install(const QString &path, const QString &option,
                                                  const QString &md5)
{
    return run(&PackageManagerExecuter::install, path, option, md5);
}

QFuture<QString> PackageManagerInterface::installFromRemote(HttpProjectSynchronizer *synchronizer,
                                                            const QString &source,
                                                            const QString &option)
{
    return run(&PackageManagerExecuter::installFromRemote, synchronizer, source, option);
}

QFuture<QString> PackageManagerInterface::remove(const QString &uuid)
{
    return run(&PackageManagerExecuter::remove, uuid);
}

QFuture<QStringList> PackageManagerInterface::removeSeveral(const QStringList &uuids)
{
    return run(&PackageManagerExecuter::removeSeveral, uuids);
}

} // namespace RK
