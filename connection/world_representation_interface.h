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

/// The robot's model of the objects it knows: a tree of named objects under a
/// root, each with a category, a displacement from its parent and named
/// attributes made of fields. Queries answer by future (pool threads); the
/// object names are polled on the executer's thread and arrive as
/// objectsUpdated; the robot's micro events about displays, attributes and
/// positions arrive as the other three signals.
///
/// \b Thread and \b ownership as for every interface (see MorvaneInterface):
/// it lives on the connection's worker thread and its signals come on library
/// threads, so connect them with a receiver object on the GUI thread. It is
/// new at every connection, shared by the connection and the holders of
/// ConnectionManager::worldRepresentationInterface(): drop the pointer on
/// ConnectionManager::disconnected(). Its methods return at once and may be
/// called from any thread.
class NIMIOB_EXPORT WorldRepresentationInterface
    : public QObject,
      public MorvaneInterface<WorldRepresentationExecuter, ExecuterThread>
{
    Q_OBJECT

public:
    /// Attribute name, then field name, then the field's value.
    using Attributes = QMap<QString, QMap<QString, VX::VXValue>>;
    /// Field name, then the field's value.
    using Fields = QMap<QString, VX::VXValue>;
    /// A reference object's name and the displacement from it (metres and
    /// a rotation).
    using Placement = QPair<QString, VX::Math::Displacement>;

    /// The robot's event listing the objects to display:
    /// "VXWorldRepresentation/DisplayRequired".
    static const QString a_worldRepDisplayRequiredKey;
    /// The robot's event about a changed attribute:
    /// "VXWorldRepresentation/AttributeChanged".
    static const QString a_worldRepAttributeChangedKey;
    /// The robot's event about a moved object:
    /// "VXWorldRepresentation/PositionChanged".
    static const QString a_worldRepPositionChangedKey;

    /// Made by the connection's worker thread; applications take it from
    /// ConnectionManager::worldRepresentationInterface().
    explicit WorldRepresentationInterface(boost::shared_ptr<Connection> connection);
    /// Waits for the calls it started and for its executer's thread.
    ~WorldRepresentationInterface() override;

    /// Polls the object names every \p pollPeriodMs milliseconds; each poll
    /// ends in objectsUpdated(). Queued to the executer. Each start adds one
    /// more poll per tick until the next stop, which ends them all.
    void startObjectPolling(unsigned int pollPeriodMs);
    /// Ends every poll that startObjectPolling() began.
    void stopObjectPolling();

    /// The names of the objects to display. Here and below: empty results
    /// when the service is missing or a call fails (logged, and
    /// errorOccurred()).
    QFuture<QStringList> objectsDisplayed();
    /// Every attribute of the object \p name.
    QFuture<Attributes> objectAttributes(const QString &name);
    /// The fields of the attribute named "Display" or "display".
    QFuture<Fields> objectDisplayAttributes(const QString &name);
    /// The category of the object \p name.
    QFuture<QString> objectCategory(const QString &name);
    /// The name of the tree's root.
    QFuture<QString> rootName();
    /// The parent's name and the displacement from it.
    QFuture<Placement> objectPosition(const QString &name);
    /// The root's name and the displacement from it.
    QFuture<Placement> objectAbsolutePosition(const QString &name);

    /// a_worldRepDisplayRequiredKey.
    static QString worldRepDisplayRequiredKey() { return a_worldRepDisplayRequiredKey; }

public slots:
    /// Turns the robot's three events into objectsDisplayedChanged(),
    /// attributeChanged() and positionChanged(); a malformed one is logged
    /// and dropped. Connected to the desktop module's events by the
    /// constructor.
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
    /// The names of every object, at each poll (empty after a failed one).
    void objectsUpdated(QStringList objects);
    /// The robot asks for \p objects to be displayed.
    void objectsDisplayedChanged(QStringList objects);
    /// The attribute \p attributeName of \p objName changed to
    /// \p attributeFields.
    void attributeChanged(QString objName, QString attributeName, VX::VXValue attributeFields);
    /// \p objName moved: \p newPos is its displacement from its parent.
    void positionChanged(QString objName, VX::Math::Displacement newPos);
};

} // namespace RK
