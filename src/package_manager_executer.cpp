#include "package_manager_executer_p.h"
#include "sartel_almodule_p.h"
#include "sartel_executer_p.h"

#include <connection/connection.h>
#include <connection/http_project_synchronizer.h>
#include <connection/sartel_module.h>

#include <vx/vxerror.h>
#include <vx/vxproxy.h>
#include <wz/log.h>
#include <wz/project/project_model.h>

#include <QFileInfo>

#include <memory>
#include <stdexcept>

namespace RK {

namespace {
const char *const k_category = "con.pkgMngrE";

QString installText(const QString &detail)
{
    return PackageManagerExecuter::tr("An error occurred during application's installation: %1")
        .arg(detail);
}

QString uninstallText(const QString &detail)
{
    return PackageManagerExecuter::tr("An error occurred during application's uninstallation: %1")
        .arg(detail);
}
} // namespace

const char *const PackageManagerExecuter::a_packageInstalledKey = "packageInstalled";
const char *const PackageManagerExecuter::a_packageRemovedKey = "packageRemoved";

PackageManagerExecuter::PackageManagerExecuter(boost::shared_ptr<Connection> connection)
    : m_connection(connection)
{
    qRegisterMetaType<wz::PackageInfo>("wz::PackageInfo");
    if (!connection)
        return;
    if (const auto sartel = connection->sartelModuleInterface()) {
        m_events = relayModuleEvents(
            *sartel, this,
            {QString::fromLatin1(a_packageInstalledKey), QString::fromLatin1(a_packageRemovedKey)},
            [this](const QString &name, const VX::VXValue &value) { onDataChanged(name, value); });
        emit sartel->subscribeToMicroEventRequested(QString::fromLatin1(a_packageInstalledKey));
        emit sartel->subscribeToMicroEventRequested(QString::fromLatin1(a_packageRemovedKey));
    }
}

PackageManagerExecuter::~PackageManagerExecuter()
{
    if (m_events)
        m_events->detach();
}

void PackageManagerExecuter::onDataChanged(const QString &name, const VX::VXValue &value)
{
    if (name == QLatin1String(a_packageInstalledKey))
        emit packageInstalled(wz::PackageInfo(value));
    else if (name == QLatin1String(a_packageRemovedKey))
        emit packageRemoved(wz::PackageInfo(value));
}

bool PackageManagerExecuter::offers(const boost::shared_ptr<VX::VXProxy> &proxy, const char *method)
{
    const wz::Object object = proxy->object();
    if (!object)
        throw std::runtime_error("This object is null");
    return !object.metaObject().findMethod(method).empty();
}

QVector<wz::PackageInfo> PackageManagerExecuter::getPackages()
{
    QVector<wz::PackageInfo> packages;
    const auto connection = m_connection.lock();
    const auto proxy = connection ? connection->packageManager() : nullptr;
    if (!proxy)
        return packages;
    try {
        const VX::VXValue all = proxy->call<VX::VXValue>("getPackages");
        if (!all.isArray())
            throw VX::VXError("getPackages did not answer an array");
        for (int i = 0; i < all.getSize(); ++i) {
            wz::PackageInfo package(all[i]);
            if (!package.uuid().empty())
                packages.append(package);
        }
    } catch (const std::exception &e) {
        wz::log::LogStream(wz::LogLevel_Error, k_category, __FUNCTION__)
            << "getPackages: " << e.what();
        packages.clear();
    }
    return packages;
}

wz::PackageInfo PackageManagerExecuter::getPackage(QString uuid)
{
    const auto connection = m_connection.lock();
    const auto proxy = connection ? connection->packageManager() : nullptr;
    if (!proxy)
        return wz::PackageInfo();
    try {
        return wz::PackageInfo(proxy->call<VX::VXValue>("getPackage", uuid.toStdString()));
    } catch (const std::exception &e) {
        wz::log::LogStream(wz::LogLevel_Error, k_category, __FUNCTION__)
            << "getPackage: " << e.what();
        return wz::PackageInfo();
    }
}

QImage PackageManagerExecuter::getPackageIcon(QString uuid)
{
    const auto connection = m_connection.lock();
    const auto proxy = connection ? connection->packageManager() : nullptr;
    if (!proxy)
        return QImage();
    try {
        if (offers(proxy, "packageIcon")) {
            const std::string bytes = proxy->call<std::string>("packageIcon", uuid.toStdString());
            return QImage::fromData(QByteArray(bytes.data(), int(bytes.size())));
        }
        const VX::VXValue icon = proxy->call<VX::VXValue>("getPackageIcon", uuid.toStdString());
        if (!icon.isBinary())
            return QImage();
        return QImage::fromData(
            QByteArray(static_cast<const char *>(icon.GetBinary()), int(icon.getSize())));
    } catch (const std::exception &e) {
        wz::log::LogStream(wz::LogLevel_Error, k_category, __FUNCTION__)
            << "getPackageIcon: " << e.what();
        return QImage();
    }
}

QPair<QString, QString> PackageManagerExecuter::openFileTransferSession(QString name)
{
    const auto connection = m_connection.lock();
    const auto proxy = connection ? connection->packageManager() : nullptr;
    if (!proxy)
        return qMakePair(QString(), tr("No connection available"));
    try {
        const VX::VXValue answer
            = proxy->call<VX::VXValue>("_openFileTransferSession", name.toStdString());
        if (!answer.isArray() || answer.getSize() < 2 || !answer[0].isString()
            || !answer[1].isString() || answer[0].toStdString().empty())
            throw VX::VXError("_openFileTransferSession: unexpected answer " + answer.toString(1));
        return qMakePair(QString::fromStdString(answer[0].toStdString()),
                         QString::fromStdString(answer[1].toStdString()));
    } catch (const std::exception &e) {
        return qMakePair(QString(), QString::fromUtf8(e.what()));
    }
}

void PackageManagerExecuter::closeFileTransferSession(QString session)
{
    const auto connection = m_connection.lock();
    const auto proxy = connection ? connection->packageManager() : nullptr;
    if (!proxy)
        return;
    try {
        proxy->call<void>("_closeFileTransferSession", session.toStdString());
    } catch (const std::exception &e) {
        wz::log::LogStream(wz::LogLevel_Verbose, "PackageManager", __FUNCTION__) << e.what();
    }
}

bool PackageManagerExecuter::xInstallPackage(const QString &path, const QString &option,
                                             const QString &md5)
{
    const auto connection = m_connection.lock();
    if (!connection)
        throw std::runtime_error("No connection available");
    const auto proxy = connection->packageManager();
    if (!proxy)
        throw std::runtime_error("This object is null");
    if (offers(proxy, "installCheckMd5"))
        return proxy->call<bool>("installCheckMd5", path.toStdString(), md5.toStdString());
    const int result
        = proxy->call<int>("install", path.toStdString(), option.toStdString(), md5.toStdString());
    if (result == 0)
        return true;
    if (result == 2)
        return false;
    throw std::runtime_error("Installation failed");
}

QString PackageManagerExecuter::install(QString path, QString option, QString md5)
{
    try {
        if (xInstallPackage(path, option, md5))
            return QString();
        return installText(QStringLiteral("Package ") + path
                           + QStringLiteral(" already installed."));
    } catch (const std::exception &e) {
        return installText(QString::fromUtf8(e.what()));
    }
}

QString PackageManagerExecuter::installFromRemote(HttpProjectSynchronizer *synchronizer,
                                                  QString source, QString option)
{
    const QFileInfo sourceInfo(source);
    if (!sourceInfo.isFile())
        return installText(tr("Source file %1 doesn't exist").arg(source));
    const auto connection = m_connection.lock();
    if (!connection || !connection->packageManager())
        return installText(tr("No connection available"));
    const QPair<QString, QString> session = openFileTransferSession(QStringLiteral("appSync"));
    if (session.first.isEmpty())
        return installText(session.second);
    // From here on the session is closed in every outcome.
    struct SessionCloser
    {
        PackageManagerExecuter *self;
        QString key;
        ~SessionCloser() { self->closeFileTransferSession(key); }
    } closer {this, session.first};

    HttpProjectSynchronizer *expected = nullptr;
    if (!synchronizer || !m_runningTransfer.compare_exchange_strong(expected, synchronizer))
        return installText(tr("Another transfer task is already running"));
    QString pushError;
    try {
        if (synchronizer->isBusy())
            throw std::runtime_error(
                tr("a project synchronization operation is in progress").toStdString());
        auto model = std::make_unique<wz::project::ProjectModel>();
        model->createNew();
        model->importFile(source, sourceInfo.fileName(), false);
        synchronizer->push(connection->address().toStdString(), connection->httpTransferPort(),
                           model.get(), session.second, wz::project::ArchiveFormat_Plain);
        pushError = synchronizer->wait();
    } catch (const std::exception &e) {
        pushError = QString::fromUtf8(e.what());
    }
    m_runningTransfer = nullptr;
    if (!pushError.isEmpty())
        return installText(pushError);

    const QString target = session.second + QLatin1Char('/') + sourceInfo.fileName();
    try {
        if (xInstallPackage(target, option, QString()))
            return QString();
        return installText(QStringLiteral("Package ") + target
                           + QStringLiteral(" already installed."));
    } catch (const std::exception &e) {
        return installText(QString::fromUtf8(e.what()));
    }
}

QString PackageManagerExecuter::remove(QString uuid)
{
    const auto connection = m_connection.lock();
    if (!connection)
        return uninstallText(tr("No connection available"));
    const auto proxy = connection->packageManager();
    if (!proxy)
        return uninstallText(QStringLiteral("problem getting the package manager."));
    try {
        if (offers(proxy, "removePkg")) {
            proxy->call<void>("removePkg", uuid.toStdString());
        } else if (proxy->call<int>("remove", uuid.toStdString()) != 0) {
            return uninstallText(QStringLiteral("Cannot remove ") + uuid);
        }
    } catch (const std::exception &e) {
        wz::log::LogStream(wz::LogLevel_Warning, k_category, __FUNCTION__)
            << "remove " << uuid.toStdString() << ": " << e.what();
        return uninstallText(QStringLiteral("Cannot remove ") + uuid);
    }
    return QString();
}

QStringList PackageManagerExecuter::removeSeveral(QStringList uuids)
{
    const auto connection = m_connection.lock();
    if (!connection)
        return {uninstallText(tr("No connection available"))};
    const auto proxy = connection->packageManager();
    if (!proxy)
        return {uninstallText(QStringLiteral("problem getting the package manager."))};
    QStringList errors;
    for (const QString &name : uuids) {
        try {
            // Always the older method, whose result counts as a failure from 1 up.
            if (proxy->call<int>("remove", name.toStdString()) >= 1)
                errors.append(name + QStringLiteral(": remove failed"));
        } catch (const std::exception &e) {
            errors.append(QString::fromUtf8(e.what()));
        }
    }
    if (!errors.isEmpty())
        errors.prepend(tr("%n error(s) occurred during uninstallation", nullptr, errors.size()));
    return errors;
}

} // namespace RK
