#include "kit.h"

#include "connection_manager_p.h"
#include "connection_p.h"
#include <connection/platform.h>
#include <connection/sartel_module.h>

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

#include <string>
#include <vector>

namespace console {

namespace {

// The latest pose reports, by joint, in the robot's order.
struct PoseTable
{
    std::vector<std::string> joints;
    std::vector<float> angles;
    std::vector<float> stiffnesses;
    bool awakeKnown = false;
    bool awake = false;
    int angleReports = 0;
    int stiffnessReports = 0;

    void takeJoints(const std::vector<std::string> &names)
    {
        if (!names.empty())
            joints = names;
    }

    // The table's lines: a header, one row per joint.
    QStringList lines(double seconds) const
    {
        QStringList out;
        out << QStringLiteral("Awake: %1   %2 angle and %3 stiffness report(s) in %4 s")
                   .arg(awakeKnown ? (awake ? QStringLiteral("yes") : QStringLiteral("no"))
                                   : QStringLiteral("?"))
                   .arg(angleReports)
                   .arg(stiffnessReports)
                   .arg(seconds, 0, 'f', 1);
        out << QStringLiteral("%1  %2  %3")
                   .arg(QStringLiteral("Joint").leftJustified(18))
                   .arg(QStringLiteral("Angle (rad)").rightJustified(11))
                   .arg(QStringLiteral("Stiffness").rightJustified(9));
        for (size_t i = 0; i < joints.size(); ++i) {
            const QString angle
                = i < angles.size() ? QString::number(angles[i], 'f', 3) : QStringLiteral("-");
            const QString stiffness = i < stiffnesses.size()
                ? QString::number(stiffnesses[i], 'f', 2)
                : QStringLiteral("-");
            out << QStringLiteral("%1  %2  %3")
                       .arg(QString::fromStdString(joints[i]).leftJustified(18))
                       .arg(angle.rightJustified(11))
                       .arg(stiffness.rightJustified(9));
        }
        return out;
    }

    QJsonObject json(double seconds) const
    {
        QJsonArray rows;
        for (size_t i = 0; i < joints.size(); ++i) {
            rows.append(QJsonObject {
                {QStringLiteral("joint"), QString::fromStdString(joints[i])},
                {QStringLiteral("angle"),
                 i < angles.size() ? QJsonValue(double(angles[i])) : QJsonValue()},
                {QStringLiteral("stiffness"),
                 i < stiffnesses.size() ? QJsonValue(double(stiffnesses[i])) : QJsonValue()}});
        }
        return {{QStringLiteral("awake"), awakeKnown ? QJsonValue(awake) : QJsonValue()},
                {QStringLiteral("angleReports"), angleReports},
                {QStringLiteral("stiffnessReports"), stiffnessReports},
                {QStringLiteral("seconds"), seconds},
                {QStringLiteral("joints"), rows}};
    }
};

} // namespace

// Shows joint angles, stiffness and the awake state as the desktop module
// polls them, redrawn in place on a terminal; elsewhere the last table only.
int poseCommand(Console &console, const QStringList &arguments)
{
    Arguments args(console, "pose", arguments);
    const bool wake = args.flag("wake");
    int forMs = 5000;
    args.duration("for", forMs);
    if (const int status = args.finish())
        return status;
    if (const int status = need(console, {"VXMotion"}, "pose"))
        return status;
    RK::ConnectionManager &manager = console.manager();
    const boost::shared_ptr<RK::SartelModuleInterface> module = manager.sartelModuleInterface();
    const boost::shared_ptr<RK::Connection> connection = RK::currentConnection(manager);
    const boost::shared_ptr<VX::VXMotionProxy> motion
        = connection ? connection->motion() : boost::shared_ptr<VX::VXMotionProxy>();
    if (!module || !motion)
        return missing(console, "VXMotion", "pose");
    QTextStream &out = console.out();
    const bool terminal = console.options().terminal && !console.json();
    Waiter waiter(console);
    waiter.observe(module->executerObject(), QStringLiteral("VXMotion"));

    PoseTable table;
    QObject receiver;
    using I = RK::SartelModuleInterface;
    QObject::connect(
        module.get(), &I::motorAnglesChanged, &receiver,
        [&table](const std::vector<std::string> &joints, const std::vector<float> &angles) {
            table.takeJoints(joints);
            table.angles = angles;
            ++table.angleReports;
        });
    QObject::connect(
        module.get(), &I::motorStiffnessesChanged, &receiver,
        [&table](const std::vector<std::string> &joints, const std::vector<float> &stiffnesses) {
            table.takeJoints(joints);
            table.stiffnesses = stiffnesses;
            ++table.stiffnessReports;
        });
    QObject::connect(module.get(), &I::robotStateChanged, &receiver, [&table](bool awake) {
        table.awakeKnown = true;
        table.awake = awake;
    });
    bool moduleLost = false;
    QObject::connect(module.get(), &I::connectionLost, &receiver, [&] { moduleLost = true; });

    if (wake) {
        try {
            motion->post.wakeUp();
        } catch (const std::exception &e) {
            console.err() << "error: wakeUp could not be sent: " << e.what() << Qt::endl;
            return ExitCommandFailed;
        }
        console.info() << "Waking the robot up." << Qt::endl;
    }

    module->robotPoseUpdateNeeded(true);
    QElapsedTimer elapsed;
    elapsed.start();
    int drawn = 0;
    const auto draw = [&] {
        const QStringList lines = table.lines(elapsed.elapsed() / 1000.0);
        if (drawn > 0)
            out << "\x1b[" << drawn << 'A';
        for (const QString &line : lines)
            out << line << "\x1b[K" << '\n';
        out.flush();
        drawn = int(lines.size());
    };
    QTimer redraw;
    if (terminal) {
        QObject::connect(&redraw, &QTimer::timeout, draw);
        redraw.start(200);
    }
    const Outcome outcome = waiter.wait([&] { return moduleLost; }, forMs);
    redraw.stop();
    if (outcome == Outcome::Done || outcome == Outcome::Lost) {
        // A table of the last poses before a loss would look current.
        console.err() << "error: the connection to the robot was lost after "
                      << QString::number(elapsed.elapsed() / 1000.0, 'f', 1) << " s" << Qt::endl;
        return ExitNoConnection;
    }
    module->robotPoseUpdateNeeded(false);
    if (outcome == Outcome::Failed)
        return waiter.fail(outcome, QStringLiteral("poses"));

    const double seconds = elapsed.elapsed() / 1000.0;
    if (console.json())
        printJson(console, table.json(seconds));
    else if (terminal)
        draw();
    else
        out << table.lines(seconds).join(QLatin1Char('\n')) << Qt::endl;
    if (table.joints.empty()) {
        console.err() << "error: no pose came from the robot" << Qt::endl;
        return ExitCommandFailed;
    }
    return outcome == Outcome::Interrupted ? ExitInterrupted : ExitOk;
}

} // namespace console
