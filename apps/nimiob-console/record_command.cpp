#include "kit.h"

#include "connection_manager_p.h"
#include "connection_p.h"
#include <connection/platform.h>
#include <connection/recorder_module.h>

#include <QObject>

#include <string>
#include <vector>

namespace console {

namespace {

constexpr double kTimeStepS = 0.2;

// One pose each time the user says so: the console reads the joints itself,
// so that this works on any robot with VXMotion, with or without a button
// or a recorder that asks for poses.
int recordByHand(Console &console, const std::vector<std::string> &joints, int poses)
{
    QTextStream *in = console.in();
    if (!in) {
        console.err() << "error: --interactive needs someone at the keyboard" << Qt::endl;
        return ExitUsage;
    }
    const boost::shared_ptr<RK::Connection> connection = RK::currentConnection(console.manager());
    const boost::shared_ptr<VX::VXMotionProxy> motion
        = connection ? connection->motion() : boost::shared_ptr<VX::VXMotionProxy>();
    if (!motion)
        return missing(console, "VXMotion", "record");
    QTextStream &out = console.out();
    const VX::VXValue names(joints);
    std::vector<VX::VXValue> recorded;
    for (int i = 0; i < poses; ++i) {
        out << "pose " << i + 1 << "/" << poses
            << ": place the robot, then press Enter (q and Enter to stop)" << Qt::endl;
        const QString line = in->readLine();
        if (InterruptScope::requested())
            return ExitInterrupted;
        if (line.isNull() || line.trimmed() == QLatin1String("q"))
            break;
        std::vector<float> angles;
        try {
            angles = motion->getAngles(names, true);
        } catch (const std::exception &e) {
            if (!console.manager().isConnected()) {
                console.err() << "error: the connection to the robot was lost" << Qt::endl;
                return ExitNoConnection;
            }
            console.err() << "error: the joints could not be read: " << e.what() << Qt::endl;
            return ExitCommandFailed;
        }
        QStringList shown;
        for (size_t j = 0; j < angles.size() && j < joints.size(); ++j)
            shown << QStringLiteral("%1=%2")
                         .arg(QString::fromStdString(joints[j]))
                         .arg(double(angles[j]), 0, 'f', 3);
        out << "stored " << shown.join(QLatin1Char(' ')) << Qt::endl;
        recorded.emplace_back(angles);
    }
    if (recorded.empty()) {
        console.err() << "error: no pose was recorded" << Qt::endl;
        return ExitCommandFailed;
    }
    out << "Recording: " << QString::fromStdString(VX::VXValue(recorded).toString(1)) << Qt::endl;
    return ExitOk;
}

} // namespace

// Records poses of some joints: periodically (every 0.2 s) on the robot's
// recorder, or one at each Enter, read by the console itself. Prints the
// steps as they come, then the poses.
int recordCommand(Console &console, const QStringList &arguments)
{
    Arguments args(console, "record", arguments);
    const bool interactive = args.flag("interactive");
    QString jointList;
    if (!args.option("joints", jointList))
        args.fail(QStringLiteral("record needs --joints A,B"));
    int poses = 5;
    args.number("poses", poses, 1, 10000);
    std::vector<std::string> joints;
    QStringList jointNames;
    for (const QString &j : jointList.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
        joints.push_back(j.toUtf8().toStdString());
        jointNames << j;
    }
    if (joints.empty())
        args.fail(QStringLiteral("--joints wants joint names, separated by commas"));
    if (const int status = args.finish())
        return status;
    if (const int status = need(console, {"VXMotion"}, "record"))
        return status;
    if (!console.checkJoints(jointNames))
        return ExitCommandFailed;
    if (interactive)
        return recordByHand(console, joints, poses);

    if (const int status = need(console, {"VXMotionRecorder"}, "record"))
        return status;
    const boost::shared_ptr<RK::VXSartelRecorder> recorder = console.manager().recorderModule();
    if (!recorder)
        return missing(console, "VXMotionRecorder", "record");
    Waiter waiter(console);
    waiter.observe(recorder->executerObject(), QStringLiteral("VXMotionRecorder"));
    QObject receiver;
    bool stopped = false;
    bool received = false;
    VX::VXValue recording;
    std::vector<Console::Error> dialogs;
    using R = RK::VXSartelRecorder;
    QObject::connect(recorder.get(), &R::stepReceived, &receiver,
                     [&](int step) { console.out() << "step " << step << Qt::endl; });
    QObject::connect(recorder.get(), &R::recordingStopped, &receiver, [&] { stopped = true; });
    QObject::connect(recorder.get(), &R::recordingReceived, &receiver,
                     [&](const VX::VXValue &value) {
                         recording = value;
                         received = true;
                     });
    recorder->setTimeStep(kTimeStepS);
    recorder->startToRecordPeriodically(joints, {}, VX::VXValue(), poses);
    const int answerMs = console.options().answerMs;
    Outcome outcome
        = waiter.wait([&] { return stopped; }, int(poses * kTimeStepS * 1000) + answerMs);
    if (outcome == Outcome::TimedOut)
        console.err() << "warning: the robot did not say that the recording ended" << Qt::endl;
    else if (outcome != Outcome::Done && outcome != Outcome::Interrupted)
        return waiter.fail(outcome, QStringLiteral("the recording"));
    // Interrupted or not, what was recorded so far comes back.
    const bool interrupted = outcome == Outcome::Interrupted;
    recorder->stopRecording();
    outcome = waiter.drain(recorder->executerObject(), recorder.get(), answerMs);
    if (outcome == Outcome::Interrupted && interrupted)
        outcome = Outcome::Done;
    if (outcome != Outcome::Done)
        return waiter.fail(outcome, QStringLiteral("the recording"));
    if (!received || !recording.isValid()) {
        console.err() << "error: no recording came back" << Qt::endl;
        return ExitCommandFailed;
    }
    console.out() << "Recording: " << QString::fromStdString(recording.toString(1)) << Qt::endl;
    return interrupted ? ExitInterrupted : ExitOk;
}

} // namespace console
