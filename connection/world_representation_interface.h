#pragma once

#include <connection/operation_error.h>

#include <connection/morvane_interface.h>
#include <connection/nimiob_export.h>

#include <QFuture>
#include <QList>
#include <QMap>
#include <QMetaType>
#include <QObject>
#include <QPair>
#include <QString>
#include <QStringList>

#include <boost/shared_ptr.hpp>

#include <vx/vxmath.h>
#include <vx/vxvalue.h>

Q_DECLARE_METATYPE(VX::Math::Displacement)

namespace RK {

class Connection;
class ExecuterThread;
class WorldRepresentationExecuter;

// The robot's model of the objects it knows: a tree of named objects under a
// root, each with a category, a displacement from its parent and named
// attributes made of fields. Queries answer by future (pool threads); the
// object names are polled on the executer's thread and arrive as
// objectsUpdated; the robot's micro events about displays, attributes and
// positions arrive as the other three signals.
class NIMIOB_EXPORT WorldRepresentationInterface
    : public QObject,
      public MorvaneInterface<WorldRepresentationExecuter, ExecuterThread>
{
    Q_OBJECT

public:
    using Attributes = QMap<QString, QMap<QString, VX::VXValue>>;
    using Fields = QMap<QString, VX::VXValue>;
    using Placement = QPair<QString, VX::Math::Displacement>;

    static const QString a_worldRepDisplayRequiredKey;
    static const QString a_worldRepAttributeChangedKey;
    static const QString a_worldRepPositionChangedKey;

    explicit WorldRepresentationInterface(boost::shared_ptr<Connection> connection);
    ~WorldRepresentationInterface() override;

    // Queued to the executer. Each start adds one more poll per tick until the
    // next stop, which ends them all.
    void startObjectPolling(unsigned int pollPeriodMs);
    void stopObjectPolling();

    // Empty results when the service is missing or a call fails (logged).
    QFuture<QStringList> objectsDisplayed();
    QFuture<Attributes> objectAttributes(const QString &name);
    // The fields of the attribute named "Display" or "display".
    QFuture<Fields> objectDisplayAttributes(const QString &name);
    QFuture<QString> objectCategory(const QString &name);
    QFuture<QString> rootName();
    // The parent's name and the displacement from it.
    QFuture<Placement> objectPosition(const QString &name);
    // The root's name and the displacement from it.
    QFuture<Placement> objectAbsolutePosition(const QString &name);

    static QString worldRepDisplayRequiredKey() { return a_worldRepDisplayRequiredKey; }

public slots:
    void onDataChanged(QString dataName, VX::VXValue dataValue);

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
    void objectsUpdated(QStringList objects);
    void objectsDisplayedChanged(QStringList objects);
    void attributeChanged(QString objName, QString attributeName, VX::VXValue attributeFields);
    void positionChanged(QString objName, VX::Math::Displacement newPos);
};

} // namespace RK
