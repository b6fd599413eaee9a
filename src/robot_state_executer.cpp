#include "executer_call_p.h"
#include "robot_state_executer_p.h"
#include "service_table_p.h"

#include "connection_p.h"

#include <vx/vxproxies.h>
#include <vx/vxproxy.h>
#include <vx/vxvalue.h>
#include <wz/log.h>

#include <string>
#include <vector>

namespace RK {

namespace {

const char *const k_category = "desktop.motion";

// Names first, then angles, in the map's order.
void toArguments(const RobotPose &pose, VX::VXValue &names, VX::VXValue &angles)
{
    std::vector<std::string> nameList;
    std::vector<float> angleList;
    for (auto it = pose.constBegin(); it != pose.constEnd(); ++it) {
        nameList.push_back(it.key().toUtf8().toStdString());
        angleList.push_back(static_cast<float>(it.value()));
    }
    names = VX::VXValue(nameList);
    angles = VX::VXValue(angleList);
}

} // namespace

const float RobotStateExecuter::a_stiffnessTime = 0.2f;
const float RobotStateExecuter::a_stiffnessMax = 1.0f;
const float RobotStateExecuter::a_stiffnessMin = 0.0f;

RobotStateExecuter::RobotStateExecuter(boost::shared_ptr<Connection> connection)
    : QObject(nullptr),
      m_connection(connection),
      m_posted(
          std::make_unique<PostedCallWatch>([this](const OperationError &failure, bool withSignal) {
              if (withSignal)
                  emit error(failure.title, failure.contents, failure.details);
              emit errorOccurred(failure);
          }))
{ }

RobotStateExecuter::~RobotStateExecuter() = default;

void RobotStateExecuter::changeAnglesWithSpeed(RobotPose motorChanges, float motorSpeed)
{
    executerCall(this, m_connection, "changeMotorAngles")
        .log(k_category)
        .run(&Connection::motion, [&](VX::VXMotionProxy &motion) {
            VX::VXValue names;
            VX::VXValue changes;
            toArguments(motorChanges, names, changes);
            motion.changeAngles(names, changes, motorSpeed);
        });
}

void RobotStateExecuter::gotoAnglesWithSpeed(RobotPose motorValues, float motorSpeed, bool post)
{
    const char *const method = "angleInterpolationWithSpeed";
    const QString shown
        = post ? QStringLiteral("post.%1").arg(QLatin1String(method)) : QString::fromLatin1(method);
    auto call
        = executerCall(this, m_connection, post ? "sendMotorAngles" : "sendMotorAnglesBlocking");
    call.signal(QString::fromLatin1(serviceName(ServiceId::Motion)),
                tr("Failed to call %1").arg(shown));
    if (motorValues.isEmpty()) {
        call.fail(ErrorCode::RobotFailed, QStringLiteral("no joint to move"));
        return;
    }
    call.run(&Connection::motion, [&](VX::VXMotionProxy &motion) {
        VX::VXValue names;
        VX::VXValue angles;
        toArguments(motorValues, names, angles);
        if (post)
            m_posted->post(*motion.getGenericProxy(), call.operation(), call.report(), method,
                           {wz::toAny(names), wz::toAny(angles), wz::toAny(motorSpeed)});
        else
            motion.angleInterpolationWithSpeed(names, angles, motorSpeed);
    });
}

void RobotStateExecuter::gotoAnglesWithSpeedBlocking(RobotPose motorValues, float motorSpeed)
{
    gotoAnglesWithSpeed(motorValues, motorSpeed, false);
}

// On the pool, where waiting costs no executer anything: the future ends with
// the robot's answer, so a failure is told before it ends.
void RobotStateExecuter::setStiffness(QString name, bool on)
{
    executerCall(this, m_connection, "setStiffness")
        .signal(QString::fromLatin1(serviceName(ServiceId::Motion)),
                tr("Failed to call %1").arg(QStringLiteral("stiffnessInterpolation")))
        .run(&Connection::motion, [&](VX::VXMotionProxy &motion) {
            motion.stiffnessInterpolation(VX::VXValue(name.toUtf8().toStdString()),
                                          VX::VXValue(on ? a_stiffnessMax : a_stiffnessMin),
                                          VX::VXValue(a_stiffnessTime));
        });
}

void RobotStateExecuter::rest()
{
    postMotion("rest", "rest", {});
}

void RobotStateExecuter::wakeUp()
{
    postMotion("wakeUp", "wakeUp", {});
}

void RobotStateExecuter::postMotion(const char *operation, const char *method,
                                    std::vector<wz::AnyValue> args)
{
    auto call = executerCall(this, m_connection, operation);
    call.signal(QString::fromLatin1(serviceName(ServiceId::Motion)),
                tr("Failed to call %1").arg(QString::fromLatin1(method)));
    call.run(&Connection::motion, [&](VX::VXMotionProxy &motion) {
        m_posted->post(*motion.getGenericProxy(), operation, call.report(), method,
                       std::move(args));
    });
}

} // namespace RK
