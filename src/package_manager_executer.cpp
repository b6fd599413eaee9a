#include "executer_call_p.h"
#include "package_manager_executer_p.h"
#include "sartel_almodule_p.h"
#include "sartel_executer_p.h"

#include "connection_p.h"
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

bool PackageManagerExecuter::offers(VX::VXProxy &proxy, const char *method)
{
    const wz::Object object = proxy.object();
    if (!object)
        throw std::runtime_error("This object is null");
    return !object.metaObject().findMethod(method).empty();
}

QVector<wz::PackageInfo> PackageManagerExecuter::getPackages()
{
    return executerCall(this, m_connection, "getPackages")
        .log(k_category)
        .run(&Connection::packageManager, [](VX::VXProxy &proxy) {
            QVector<wz::PackageInfo> packages;
            const VX::VXValue all = proxy.call<VX::VXValue>("getPackages");
            if (!all.isArray())
                throw VX::VXError("getPackages did not answer an array");
            for (int i = 0; i < all.getSize(); ++i) {
                wz::PackageInfo package(all[i]);
                if (!package.uuid().empty())
                    packages.append(package);
            }
            return packages;
        });
}

wz::PackageInfo PackageManagerExecuter::getPackage(QString uuid)
{
    return executerCall(this, m_connection, "getPackage")
        .log(k_category)
        .run(&Connection::packageManager, [&](VX::VXProxy &proxy) {
            return wz::PackageInfo(proxy.call<VX::VXValue>("getPackage", uuid.toStdString()));
        });
}

QImage PackageManagerExecuter::getPackageIcon(QString uuid)
{
    return executerCall(this, m_connection, "getPackageIcon")
        .log(k_category)
        .run(&Connection::packageManager, [&](VX::VXProxy &proxy) {
            if (offers(proxy, "packageIcon")) {
                const std::string bytes
                    = proxy.call<std::string>("packageIcon", uuid.toStdString());
                return QImage::fromData(QByteArray(bytes.data(), int(bytes.size())));
            }
            const VX::VXValue icon = proxy.call<VX::VXValue>("getPackageIcon", uuid.toStdString());
            if (!icon.isBinary())
                return QImage();
            return QImage::fromData(
                QByteArray(static_cast<const char *>(icon.GetBinary()), int(icon.getSize())));
        });
}

QPair<QString, QString> PackageManagerExecuter::openSession(VX::VXProxy &proxy, const QString &name)
{
    const VX::VXValue answer
        = proxy.call<VX::VXValue>("_openFileTransferSession", name.toStdString());
    if (!answer.isArray() || answer.getSize() < 2 || !answer[0].isString() || !answer[1].isString()
        || answer[0].toStdString().empty())
        throw VX::VXError("_openFileTransferSession: unexpected answer " + answer.toString(1));
    return qMakePair(QString::fromStdString(answer[0].toStdString()),
                     QString::fromStdString(answer[1].toStdString()));
}

QPair<QString, QString> PackageManagerExecuter::openFileTransferSession(QString name)
{
    auto call = executerCall(this, m_connection, "openFileTransferSession");
    QPair<QString, QString> session;
    if (!call.attempt(&Connection::packageManager,
                      [&](VX::VXProxy &proxy) { session = openSession(proxy, name); }))
        return qMakePair(QString(), call.failureText());
    return session;
}

void PackageManagerExecuter::closeFileTransferSession(QString session)
{
    executerCall(this, m_connection, "closeFileTransferSession")
        .run(&Connection::packageManager, [&](VX::VXProxy &proxy) {
            proxy.call<void>("_closeFileTransferSession", session.toStdString());
        });
}

bool PackageManagerExecuter::xInstallPackage(VX::VXProxy &proxy, const QString &path,
                                             const QString &option, const QString &md5)
{
    if (offers(proxy, "installCheckMd5"))
        return proxy.call<bool>("installCheckMd5", path.toStdString(), md5.toStdString());
    const int result
        = proxy.call<int>("install", path.toStdString(), option.toStdString(), md5.toStdString());
    if (result == 0)
        return true;
    if (result == 2)
        return false;
    throw CallFailure(ErrorCode::RobotFailed, "Installation failed");
}

// The robot refusing a package it has already is a failure of the install
// too: the caller gets the text and errorOccurred.
void PackageManagerExecuter::installOrThrow(VX::VXProxy &proxy, const QString &path,
                                            const QString &option, const QString &md5)
{
    if (!xInstallPackage(proxy, path, option, md5))
        throw CallFailure(ErrorCode::RobotFailed,
                          ("Package " + path + " already installed.").toStdString());
}

QString PackageManagerExecuter::install(QString path, QString option, QString md5)
{
    auto call = executerCall(this, m_connection, "install");
    call.log(k_category);
    if (call.attempt(&Connection::packageManager,
                     [&](VX::VXProxy &proxy) { installOrThrow(proxy, path, option, md5); }))
        return QString();
    return installText(call.failureText());
}

QString PackageManagerExecuter::installFromRemote(HttpProjectSynchronizer *synchronizer,
                                                  QString source, QString option)
{
    auto call = executerCall(this, m_connection, "installFromRemote");
    call.log(k_category);
    const QFileInfo sourceInfo(source);
    if (!sourceInfo.isFile()) {
        // Nothing was asked of the robot; the application's own input is wrong.
        call.fail(ErrorCode::RobotFailed, tr("Source file %1 doesn't exist").arg(source));
        return installText(call.failureText());
    }
    if (call.attempt(&Connection::packageManager, [&](VX::VXProxy &proxy, Connection &connection) {
            const QPair<QString, QString> session = openSession(proxy, QStringLiteral("appSync"));
            // From here on the session is closed in every outcome; a failure
            // to close it is not the install's.
            struct SessionCloser
            {
                VX::VXProxy &proxy;
                QString key;
                ~SessionCloser()
                {
                    try {
                        proxy.call<void>("_closeFileTransferSession", key.toStdString());
                    } catch (const std::exception &e) {
                        wz::log::LogStream(wz::LogLevel_Verbose, "PackageManager",
                                           "closeFileTransferSession")
                            << e.what();
                    }
                }
            } closer {proxy, session.first};
            push(synchronizer, connection, sourceInfo, session.second);
            installOrThrow(proxy, session.second + QLatin1Char('/') + sourceInfo.fileName(), option,
                           QString());
        }))
        return QString();
    return installText(call.failureText());
}

void PackageManagerExecuter::cancelTransfers()
{
    std::lock_guard<std::mutex> lock(m_transferMutex);
    m_transfersCancelled = true;
    if (m_runningTransfer)
        m_runningTransfer->cancel();
}

void PackageManagerExecuter::push(HttpProjectSynchronizer *synchronizer, Connection &connection,
                                  const QFileInfo &source, const QString &directory)
{
    {
        std::lock_guard<std::mutex> lock(m_transferMutex);
        if (m_transfersCancelled)
            throw CallFailure(ErrorCode::ConnectionLost, "the connection is closing");
        if (!synchronizer || m_runningTransfer)
            throw CallFailure(ErrorCode::RobotFailed,
                              tr("Another transfer task is already running").toStdString());
        m_runningTransfer = synchronizer;
    }
    struct Release
    {
        PackageManagerExecuter &executer;
        ~Release()
        {
            std::lock_guard<std::mutex> lock(executer.m_transferMutex);
            executer.m_runningTransfer = nullptr;
        }
    } release {*this};
    if (synchronizer->isBusy())
        throw CallFailure(ErrorCode::RobotFailed,
                          tr("a project synchronization operation is in progress").toStdString());
    auto model = std::make_unique<wz::project::ProjectModel>();
    model->createNew();
    model->importFile(source.absoluteFilePath(), source.fileName(), false);
    synchronizer->push(connection.address().toStdString(), connection.httpTransferPort(),
                       model.get(), directory, wz::project::ArchiveFormat_Plain);
    {
        // A cancel that came before the push started was not the push's.
        std::lock_guard<std::mutex> lock(m_transferMutex);
        if (m_transfersCancelled)
            synchronizer->cancel();
    }
    const QString pushError = synchronizer->wait();
    if (!pushError.isEmpty())
        throw CallFailure(ErrorCode::RobotFailed, pushError.toStdString());
}

QString PackageManagerExecuter::remove(QString uuid)
{
    auto call = executerCall(this, m_connection, "remove");
    call.log(k_category);
    if (call.attempt(&Connection::packageManager, [&](VX::VXProxy &proxy) {
            if (offers(proxy, "removePkg"))
                proxy.call<void>("removePkg", uuid.toStdString());
            else if (proxy.call<int>("remove", uuid.toStdString()) != 0)
                throw CallFailure(ErrorCode::RobotFailed, ("Cannot remove " + uuid).toStdString());
        }))
        return QString();
    return uninstallText(QStringLiteral("Cannot remove ") + uuid);
}

QStringList PackageManagerExecuter::removeSeveral(QStringList uuids)
{
    auto call = executerCall(this, m_connection, "removeSeveral");
    call.log(k_category);
    QStringList errors;
    // One outcome for the whole list: the packages that failed are named in
    // the result, and told once.
    const bool reached = call.attempt(
        &Connection::packageManager, [&](VX::VXProxy &proxy, Connection &connection) {
            for (const QString &name : uuids) {
                try {
                    // Always the older method, whose result counts as a failure from 1 up.
                    if (proxy.call<int>("remove", name.toStdString()) >= 1)
                        errors.append(name + QStringLiteral(": remove failed"));
                } catch (const std::exception &e) {
                    // A lost link ends the list; the robot's refusal of one package does not.
                    if (classifyFailure(&connection, e) == ErrorCode::ConnectionLost)
                        throw;
                    errors.append(QString::fromUtf8(e.what()));
                }
            }
            if (!errors.isEmpty())
                throw CallFailure(ErrorCode::RobotFailed,
                                  errors.join(QLatin1Char('\n')).toStdString());
        });
    if (!reached && errors.isEmpty())
        errors.append(uninstallText(call.failureText()));
    if (!errors.isEmpty())
        errors.prepend(tr("%n error(s) occurred during uninstallation", nullptr, errors.size()));
    return errors;
}

} // namespace RK
