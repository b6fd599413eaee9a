#pragma once

#include <connection/operation_error.h>

#include <connection/morvane_interface.h>
#include <connection/nimiob_export.h>

#include <wz/package_info.h>

#include <QFuture>
#include <QMetaType>
#include <QObject>
#include <QPair>
#include <QString>
#include <QStringList>
#include <QVector>

#include <boost/shared_ptr.hpp>

Q_DECLARE_METATYPE(wz::PackageInfo)

// Icons are QImage values: a caller of getPackageIcon includes <QImage> and links QtGui.
QT_FORWARD_DECLARE_CLASS(QImage)

namespace RK {

class Connection;
class ExecuterThread;
class HttpProjectSynchronizer;
class PackageManagerExecuter;

// Lists, installs and removes the robot's application packages, and tells of
// installs and removals made by anyone. Every operation runs on the thread
// pool and answers by future; an error text is empty for success.
class NIMIOB_EXPORT PackageManagerInterface
    : public QObject,
      public MorvaneInterface<PackageManagerExecuter, ExecuterThread>
{
    Q_OBJECT

public:
    explicit PackageManagerInterface(boost::shared_ptr<Connection> connection);
    ~PackageManagerInterface() override;

    QFuture<QVector<wz::PackageInfo>> getPackages();
    QFuture<wz::PackageInfo> getPackage(const QString &uuid);
    QFuture<QImage> getPackageIcon(const QString &uuid);
    // (session key, directory on the robot); an empty key means failure and
    // the second member is the reason.
    QFuture<QPair<QString, QString>> openFileTransferSession(const QString &name);
    QFuture<void> closeFileTransferSession(const QString &session);
    // Installs a package file already on the robot.
    QFuture<QString> install(const QString &path, const QString &option, const QString &md5);
    // Sends a local package file through `synchronizer` (which the caller
    // owns, and may follow and cancel), then installs it.
    QFuture<QString> installFromRemote(HttpProjectSynchronizer *synchronizer, const QString &source,
                                       const QString &option);
    QFuture<QString> remove(const QString &uuid);
    // Empty when all went well; otherwise a count first, then one text per failure.
    QFuture<QStringList> removeSeveral(const QStringList &uuids);

signals:
    /// An operation of this interface failed (a request slot, or a method
    /// returning a future, which then finishes with its default value).
    /// Emitted exactly once for each failed operation, on a library thread
    /// (the executer's, or a pool thread): connect it with a receiver object,
    /// and it arrives queued on that object's thread.
    void errorOccurred(const RK::OperationError &error);
    /// The connection this interface belongs to has ended: from now on
    /// every request fails at once with RK::ErrorCode::ConnectionLost, and
    /// the application may drop the object. Emitted once, on the thread that
    /// destroys the connection.
    void connectionEnded();
    void packageInstalled(wz::PackageInfo packageInfo);
    void packageRemoved(wz::PackageInfo packageInfo);
};

} // namespace RK
