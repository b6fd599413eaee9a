#include "kit.h"

#include "connection_manager_p.h"
#include "connection_p.h"
#include <connection/platform.h>
#include <connection/robot_state_receiver.h>

#include <cmath>

namespace console {

namespace {

// How far from its target a joint may stop after a waited move, in radians:
// sensors read a little off the command.
constexpr double kReachedRad = 0.1;

} // namespace

// Moves joints: JOINT=RAD pairs, posted unless --wait, which also checks
// that the joints got there.
int moveCommand(Console &console, const QStringList &arguments)
{
    Arguments args(console, "move", arguments);
    const bool wait = args.flag("wait");
    float speed = 0.5f;
    QString speedText;
    if (args.option("speed", speedText)) {
        bool ok = false;
        speed = speedText.toFloat(&ok);
        if (!ok || !(speed > 0.0f && speed <= 1.0f))
            args.fail(QStringLiteral("--speed wants a fraction of the top speed, above 0 up to 1"));
    }
    RobotPose pose;
    for (const QString &word : args.positional()) {
        const QStringList parts = word.split(QLatin1Char('='));
        bool ok = false;
        const double angle = parts.size() == 2 ? parts[1].toDouble(&ok) : 0.0;
        if (parts.size() != 2 || parts[0].isEmpty() || !ok || !std::isfinite(angle)) {
            args.fail(QStringLiteral("move wants JOINT=RAD with a finite angle in radians, not "
                                     "\"%1\"")
                          .arg(word));
            break;
        }
        pose.insert(parts[0], angle);
    }
    if (pose.isEmpty())
        args.fail(QStringLiteral("move needs at least one JOINT=RAD"));
    if (const int status = args.finish())
        return status;
    if (const int status = need(console, {"VXMotion"}, "move"))
        return status;
    const boost::shared_ptr<RK::RobotStateReceiver> receiver
        = console.manager().robotStateReceiver();
    const boost::shared_ptr<RK::Connection> connection = RK::currentConnection(console.manager());
    const boost::shared_ptr<VX::VXMotionProxy> motion
        = connection ? connection->motion() : boost::shared_ptr<VX::VXMotionProxy>();
    if (!receiver || !motion)
        return missing(console, "VXMotion", "move");
    if (!console.checkJoints(pose.keys()))
        return ExitCommandFailed;
    Waiter waiter(console);
    waiter.observe(receiver->executerObject(), QStringLiteral("VXMotion"));
    const QString joints = pose.keys().join(QLatin1Char(' '));
    if (!wait) {
        receiver->sendMotorAngles(pose, speed);
        // Posted: the request has left once the executer is past it.
        const Outcome outcome
            = waiter.drain(receiver->executerObject(), receiver.get(), console.options().answerMs);
        if (outcome != Outcome::Done)
            return waiter.fail(outcome, QStringLiteral("the move to be sent"));
        console.out() << "Sent " << joints << " (posted)." << Qt::endl;
        return ExitOk;
    }
    receiver->sendMotorAnglesBlocking(pose, speed);
    const Outcome outcome = waiter.drain(receiver->executerObject(), receiver.get(), -1);
    if (outcome != Outcome::Done)
        return waiter.fail(outcome, QStringLiteral("the end of the move"));
    // The motion call may end without the joints where they were sent (a
    // limit, a refusal the robot only logs): what the sensors say decides.
    std::vector<float> reached;
    std::vector<std::string> list;
    for (const QString &joint : pose.keys())
        list.push_back(joint.toUtf8().toStdString());
    const VX::VXValue names(list);
    try {
        reached = motion->getAngles(names, true);
    } catch (const std::exception &e) {
        console.err() << "error: the joints could not be read after the move: " << e.what()
                      << Qt::endl;
        return ExitCommandFailed;
    }
    QStringList off;
    int i = 0;
    for (auto it = pose.begin(); it != pose.end(); ++it, ++i) {
        const double at = i < int(reached.size()) ? double(reached[size_t(i)]) : NAN;
        if (!(std::fabs(at - it.value()) <= kReachedRad))
            off << QStringLiteral("%1 is at %2, not %3")
                       .arg(it.key())
                       .arg(at, 0, 'f', 3)
                       .arg(it.value(), 0, 'f', 3);
    }
    if (!off.isEmpty()) {
        console.err() << "error: the move ended short: " << off.join(QStringLiteral("; "))
                      << Qt::endl;
        return ExitCommandFailed;
    }
    console.out() << "Moved " << joints << "." << Qt::endl;
    return ExitOk;
}

} // namespace console
