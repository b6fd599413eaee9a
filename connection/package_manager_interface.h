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

/// Lists, installs and removes the robot's application packages, and tells of
/// installs and removals made by anyone. Every operation runs on the thread
/// pool and answers by future; an error text is empty for success.
///
/// \b Thread and \b ownership as for every interface (see MorvaneInterface):
/// it lives on the connection's worker thread and its signals come on library
/// threads, so connect them with a receiver object on the GUI thread. It is
/// new at every connection, shared by the connection and the holders of
/// ConnectionManager::packageManagerInterface(): drop the pointer on
/// ConnectionManager::disconnected(). Its methods return at once and may be
/// called from any thread.
class NIMIOB_EXPORT PackageManagerInterface
    : public QObject,
      public MorvaneInterface<PackageManagerExecuter, ExecuterThread>
{
    Q_OBJECT

public:
    /// Made by the connection's worker thread; applications take it from
    /// ConnectionManager::packageManagerInterface().
    explicit PackageManagerInterface(boost::shared_ptr<Connection> connection);
    /// Waits for the calls it started and for its executer's thread.
    ~PackageManagerInterface() override;

    /// Every package installed on the robot; empty after a failure.
    QFuture<QVector<wz::PackageInfo>> getPackages();
    /// The package \p uuid; a default PackageInfo (empty uuid) after a failure.
    QFuture<wz::PackageInfo> getPackage(const QString &uuid);
    /// The icon of the package \p uuid; a null image after a failure or when
    /// it has none.
    QFuture<QImage> getPackageIcon(const QString &uuid);
    /// (session key, directory on the robot); an empty key means failure and
    /// the second member is the reason.
    QFuture<QPair<QString, QString>> openFileTransferSession(const QString &name);
    /// Ends the session that openFileTransferSession() opened.
    QFuture<void> closeFileTransferSession(const QString &session);
    /// Installs a package file already on the robot.
    QFuture<QString> install(const QString &path, const QString &option, const QString &md5);
    /// Sends a local package file through `synchronizer` (which the caller
    /// owns, and may follow and cancel), then installs it.
    QFuture<QString> installFromRemote(HttpProjectSynchronizer *synchronizer, const QString &source,
                                       const QString &option);
    /// Removes the package \p uuid; an error text, empty for success.
    QFuture<QString> remove(const QString &uuid);
    /// Empty when all went well; otherwise a count first, then one text per failure.
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
    /// A package was installed on the robot, from here or elsewhere.
    void packageInstalled(wz::PackageInfo packageInfo);
    /// A package was removed from the robot, from here or elsewhere.
    void packageRemoved(wz::PackageInfo packageInfo);
};

} // namespace RK
