#pragma once

#include <connection/operation_error.h>

#include <connection/meta_types.h>
#include <connection/package_manager_interface.h>

#include <vx/vxvalue.h>

#include <QImage>
#include <QObject>
#include <QPair>
#include <QString>
#include <QStringList>
#include <QVector>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <atomic>

#include <memory>
#include <mutex>

namespace VX {
class VXProxy;
}

QT_FORWARD_DECLARE_CLASS(QFileInfo)

namespace VX {
class VXProxy;
}

namespace RK {

class Connection;
class EventRelay;
class HttpProjectSynchronizer;

// Calls the robot's "PackageManager" on pool threads, taking the newer
// method of each pair when the service offers it.
class PackageManagerExecuter : public QObject
{
    Q_OBJECT

public:
    static const char *const a_packageInstalledKey;
    static const char *const a_packageRemovedKey;

    explicit PackageManagerExecuter(boost::shared_ptr<Connection> connection);
    ~PackageManagerExecuter() override;

    QVector<wz::PackageInfo> getPackages();
    wz::PackageInfo getPackage(QString uuid);
    QImage getPackageIcon(QString uuid);
    QPair<QString, QString> openFileTransferSession(QString name);
    void closeFileTransferSession(QString session);
    QString install(QString path, QString option, QString md5);
    // Cancels the transfer running, and refuses those to come: the
    // interface is going, and its end must not wait on the robot's server.
    // Any thread.
    void cancelTransfers();
    QString installFromRemote(HttpProjectSynchronizer *synchronizer, QString source,
                              QString option);
    QString remove(QString uuid);
    QStringList removeSeveral(QStringList uuids);

signals:
    // Each failed operation, once; its interface forwards it.
    void errorOccurred(const RK::OperationError &error);
    void packageInstalled(wz::PackageInfo packageInfo);
    void packageRemoved(wz::PackageInfo packageInfo);

public slots:
    void onDataChanged(const QString &name, const VX::VXValue &value);

private:
    // Parts of the operations above: they throw, and the operation tells it once.
    static QPair<QString, QString> openSession(VX::VXProxy &proxy, const QString &name);
    static bool xInstallPackage(VX::VXProxy &proxy, const QString &path, const QString &option,
                                const QString &md5);
    static void installOrThrow(VX::VXProxy &proxy, const QString &path, const QString &option,
                               const QString &md5);
    void push(HttpProjectSynchronizer *synchronizer, Connection &connection,
              const QFileInfo &source, const QString &directory);
    static bool offers(VX::VXProxy &proxy, const char *method);

    boost::weak_ptr<Connection> m_connection;
    std::shared_ptr<EventRelay> m_events;
    // The transfer now running (one at a time), and whether they are
    // refused; the lock also keeps a cancel from racing the transfer's end.
    std::mutex m_transferMutex;
    HttpProjectSynchronizer *m_runningTransfer = nullptr;
    bool m_transfersCancelled = false;
};

} // namespace RK
