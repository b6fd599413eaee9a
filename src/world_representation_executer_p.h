#pragma once

#include <connection/operation_error.h>

#include <QMap>
#include <QObject>
#include <QPair>
#include <QString>
#include <QStringList>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <vx/vxmath.h>
#include <vx/vxvalue.h>

class QTimer;

namespace VX {
class VXWorldRepresentationProxy;
}

namespace RK {

class Connection;

// Asks the robot's world model about its objects. Polling of the object
// names runs on the executer's thread with its timer; every query runs on a
// pool thread, several at once, and shares nothing but the weak pointer to
// the connection. A failure is logged, told once as errorOccurred, and
// gives the empty result.
class WorldRepresentationExecuter : public QObject
{
    Q_OBJECT

public:
    using Attributes = QMap<QString, QMap<QString, VX::VXValue>>;
    using Fields = QMap<QString, VX::VXValue>;
    using Placement = QPair<QString, VX::Math::Displacement>;

    explicit WorldRepresentationExecuter(boost::shared_ptr<Connection> connection);
    ~WorldRepresentationExecuter() override;

    QString objectCategory(QString name);
    QStringList objectsDisplayed();
    VX::Math::Displacement objectPosition(QString name, QString reference);
    Fields objectDisplayAttributes(QString name);
    Attributes objectAttributes(QString name);
    QString rootName();
    Placement objectAbsolutePosition(QString name);
    Placement objectPosition(QString name);

    // [[w, x, y, z], [x, y, z]] to a displacement. Throws std::runtime_error
    // for a translation or rotation that is no rigid transform, and whatever
    // the value throws for a wrong shape.
    static VX::Math::Displacement VXValueToDisplacement(const VX::VXValue &value);

    // Whether the poll timer runs (executer thread), for tests and diagnostics.
    bool isPolling() const;

public slots:
    void startObjectPolling(uint pollPeriodMs);
    void stopObjectPolling();
    void pollObjects();
    // On the executer's thread as it finishes: a timer must stop there.
    void stopTimer();

signals:
    // Each failed operation, once; its interface forwards it.
    void errorOccurred(const RK::OperationError &error);
    void objectsUpdated(QStringList objects);

private:
    // Parts of the queries above; they throw, and the query tells it once.
    static VX::VXValue fieldNames(VX::VXWorldRepresentationProxy &proxy, const QString &name);
    static QList<VX::VXValue> fieldValues(VX::VXWorldRepresentationProxy &proxy,
                                          const QString &name, const QString &attribute);
    static VX::Math::Displacement position(VX::VXWorldRepresentationProxy &proxy,
                                           const QString &name, const QString &reference);

    boost::weak_ptr<Connection> m_connection;
    QTimer *m_timer;
    // Executer thread only.
    bool m_pollFailing = false;
};

} // namespace RK
