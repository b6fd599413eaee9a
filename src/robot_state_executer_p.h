#pragma once

#include <connection/operation_error.h>

#include <connection/robot_state_receiver.h>

#include <QObject>
#include <QString>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <wz/any_value.h>

#include <memory>
#include <vector>

namespace RK {

class Connection;
class PostedCallWatch;

// Makes the calls of RobotStateReceiver to "VXMotion" on its ExecuterThread;
// setStiffness runs on the thread pool.
class RobotStateExecuter : public QObject
{
    Q_OBJECT

public:
    static const float a_stiffnessTime;
    static const float a_stiffnessMax;
    static const float a_stiffnessMin;

    explicit RobotStateExecuter(boost::shared_ptr<Connection> connection);
    ~RobotStateExecuter() override;

    void setStiffness(QString name, bool on);

public slots:
    void changeAnglesWithSpeed(RobotPose motorChanges, float motorSpeed);
    void gotoAnglesWithSpeed(RobotPose motorValues, float motorSpeed, bool post = true);
    void gotoAnglesWithSpeedBlocking(RobotPose motorValues, float motorSpeed);
    void rest();
    void wakeUp();

signals:
    // Each failed operation, once; its interface forwards it.
    void errorOccurred(const RK::OperationError &error);
    void error(QString title, QString contents, QString details);

private:
    // A posted motion: sent without waiting, its failure told when it comes.
    void postMotion(const char *operation, const char *method, std::vector<wz::AnyValue> args);

    boost::weak_ptr<Connection> m_connection;
    std::unique_ptr<PostedCallWatch> m_posted;
};

} // namespace RK
