#pragma once

#include <connection/operation_error.h>

#include <QObject>
#include <QString>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

namespace RK {

class Connection;

// Calls "VXRobotPosture" for RobotPostureInterface.
class RobotPostureExecuter : public QObject
{
    Q_OBJECT

public:
    explicit RobotPostureExecuter(boost::shared_ptr<Connection> connection);
    ~RobotPostureExecuter() override;

    QString postureFamily();

public slots:
    void onGoToPoseRequested(QString poseName, float actuatorVelocity);
    void onSetPoseRequested(QString poseName, float actuatorVelocity);

signals:
    // Each failed operation, once; its interface forwards it.
    void errorOccurred(const RK::OperationError &error);
    void robotPoseReached(bool success);
    void error(QString title, QString contents, QString details);

private:
    void robotPostureModuleCall(const char *operation, const char *method, const QString &poseName,
                                float actuatorVelocity);

    boost::weak_ptr<Connection> m_connection;
};

} // namespace RK
