#include "commands.h"
#include "console.h"

#include <connection/connection.h>
#include <connection/platform.h>
#include <connection/sartel_module.h>

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#include <unistd.h>

namespace console {

namespace {

volatile std::sig_atomic_t g_poseInterrupted = 0;

void onPoseInterrupt(int)
{
    g_poseInterrupted = 1;
}

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
};

struct PoseOptions
{
    int forSeconds = 5;
    bool wake = false;
};

bool parse(const QStringList &arguments, PoseOptions &options, QTextStream &err)
{
    for (int i = 0; i < arguments.size(); ++i) {
        const QString &arg = arguments.at(i);
        if (arg == QLatin1String("--wake")) {
            options.wake = true;
        } else if (arg == QLatin1String("--for")) {
            bool ok = false;
            const int value = i + 1 < arguments.size() ? arguments.at(i + 1).toInt(&ok) : 0;
            if (!ok || value < 1 || value > 86400) {
                err << "error: --for wants a whole number of seconds from 1" << Qt::endl;
                return false;
            }
            options.forSeconds = value;
            ++i;
        } else {
            err << "error: pose takes --for SECONDS and --wake, not " << arg << Qt::endl;
            return false;
        }
    }
    return true;
}

} // namespace

// Shows joint angles, stiffness and the awake state as the desktop module
// polls them, redrawn in place on a terminal; elsewhere the last table only.
int poseCommand(Console &console, const QStringList &arguments)
{
    PoseOptions options;
    if (!parse(arguments, options, console.err()))
        return ExitUsage;
    RK::ConnectionManager &manager = console.manager();
    const boost::shared_ptr<RK::SartelModuleInterface> module = manager.sartelModuleInterface();
    if (!module) {
        console.err() << "error: the connection has no desktop module" << Qt::endl;
        return ExitCommandFailed;
    }
    QTextStream &out = console.out();
    const bool terminal = isatty(fileno(stdout)) != 0;

    PoseTable table;
    bool lost = false;
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
    QObject::connect(module.get(), &I::connectionLost, &receiver, [&lost] { lost = true; });
    QObject::connect(&manager, &RK::ConnectionManager::disconnected, &receiver,
                     [&lost] { lost = true; });

    if (options.wake) {
        const boost::shared_ptr<RK::Connection> connection = manager.currentConnection();
        const boost::shared_ptr<VX::VXMotionProxy> motion
            = connection ? connection->motion() : boost::shared_ptr<VX::VXMotionProxy>();
        if (!motion) {
            console.err() << "error: the robot has no motion service to wake up" << Qt::endl;
            return ExitCommandFailed;
        }
        try {
            motion->post.wakeUp();
        } catch (const std::exception &e) {
            console.err() << "error: wakeUp could not be sent: " << e.what() << Qt::endl;
            return ExitCommandFailed;
        }
        out << "Waking the robot up." << Qt::endl;
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

    g_poseInterrupted = 0;
    const auto previous = std::signal(SIGINT, onPoseInterrupt);
    console.waitUntil([&] { return g_poseInterrupted != 0 || (lost && table.joints.empty()); },
                      options.forSeconds * 1000);
    std::signal(SIGINT, previous);
    redraw.stop();
    module->robotPoseUpdateNeeded(false);

    if (terminal)
        draw();
    else
        out << table.lines(elapsed.elapsed() / 1000.0).join(QLatin1Char('\n')) << Qt::endl;
    if (table.joints.empty()) {
        console.err() << "error: no pose came from the robot"
                      << (lost ? " (the robot stopped answering)" : "") << Qt::endl;
        return ExitCommandFailed;
    }
    return ExitOk;
}

} // namespace console
