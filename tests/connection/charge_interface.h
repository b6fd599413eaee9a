#pragma once

// A test-only service on the frame over the robot's real "VXBattery": proves
// that a service needs nothing but its executer's slots and signals.

#include "morvane_interface_p.h"

#include <QFuture>
#include <QObject>
#include <QString>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

namespace RK {
class Connection;
}

namespace test {

class ChargeExecuter : public QObject
{
    Q_OBJECT

public:
    explicit ChargeExecuter(boost::shared_ptr<RK::Connection> connection) : m_connection(connection)
    { }

    // Pool route; -1 without a connection, a proxy or an answer.
    int readCharge();

public slots:
    void onGetCharge();

signals:
    void chargeUpdated(int charge);
    void error(QString title, QString contents, QString details);

private:
    boost::weak_ptr<RK::Connection> m_connection;
};

class ChargeInterface : public QObject,
                        public RK::MorvaneInterface<ChargeExecuter, RK::ExecuterThread>
{
    Q_OBJECT

public:
    ChargeInterface(boost::shared_ptr<RK::Connection> connection, const QString &name);

    void getCharge() { emit getChargeRequested(); }
    QFuture<int> charge() { return run(&ChargeExecuter::readCharge); }

signals:
    void getChargeRequested();
    void chargeUpdated(int charge);
    void error(QString title, QString contents, QString details);
};

} // namespace test
