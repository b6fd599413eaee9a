#pragma once

#include <connection/operation_error.h>

#include <QObject>
#include <QString>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

namespace RK {

class Connection;

class BatteryExecuter : public QObject
{
    Q_OBJECT

public:
    explicit BatteryExecuter(boost::shared_ptr<Connection> connection);

public slots:
    void onGetBatteryLevel();

signals:
    void updateBatteryLevelRequested(int batteryLevel);
    void error(QString title, QString contents, QString details);
    void errorOccurred(const RK::OperationError &error);

private:
    boost::weak_ptr<Connection> m_connection;
};

} // namespace RK
