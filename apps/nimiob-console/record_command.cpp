#include "commands.h"
#include "console.h"

#include <connection/recorder_module.h>

#include <QObject>

#pragma push_macro("signals")
#undef signals
#include <sim/motion_recorder_service.h>
#include <sim/robot.h>
#pragma pop_macro("signals")

#include <string>
#include <vector>

namespace console {

// Records poses of some joints: periodically (every 0.2 s), or interactively,
// a pose each time the robot is asked to store one (the embedded robot is
// asked once a second). Prints the steps as they come, then the poses.
int recordCommand(Console &console, const QStringList &arguments)
{
    std::vector<std::string> joints;
    int poses = 5;
    bool interactive = false;
    for (int i = 0; i < arguments.size(); ++i) {
        const QString &arg = arguments.at(i);
        bool ok = true;
        if (arg == QLatin1String("--interactive")) {
            interactive = true;
        } else if (arg == QLatin1String("--joints") && i + 1 < arguments.size()) {
            for (const QString &j : arguments.at(++i).split(QLatin1Char(','), Qt::SkipEmptyParts))
                joints.push_back(j.toStdString());
        } else if (arg == QLatin1String("--poses") && i + 1 < arguments.size()) {
            poses = arguments.at(++i).toInt(&ok);
            ok = ok && poses >= 1 && poses <= 10000;
        } else {
            ok = false;
        }
        if (!ok) {
            console.err() << "error: record takes --joints A,B [--poses N] [--interactive]"
                          << Qt::endl;
            return ExitUsage;
        }
    }
    if (joints.empty()) {
        console.err() << "error: record needs --joints" << Qt::endl;
        return ExitUsage;
    }
    QStringList jointNames;
    for (const std::string &joint : joints)
        jointNames << QString::fromStdString(joint);
    if (!console.checkJoints(jointNames))
        return ExitCommandFailed;
    const boost::shared_ptr<RK::VXSartelRecorder> recorder = console.manager().recorderModule();
    if (!recorder) {
        console.err() << "error: the connection has no recorder module" << Qt::endl;
        return ExitCommandFailed;
    }
    QObject receiver;
    bool stopped = false;
    bool received = false;
    VX::VXValue recording;
    using R = RK::VXSartelRecorder;
    QObject::connect(recorder.get(), &R::stepReceived, &receiver,
                     [&](int step) { console.out() << "step " << step << Qt::endl; });
    QObject::connect(recorder.get(), &R::storePositionRequested, &receiver,
                     [&] { console.out() << "store requested" << Qt::endl; });
    QObject::connect(recorder.get(), &R::recordingStopped, &receiver, [&] { stopped = true; });
    QObject::connect(recorder.get(), &R::recordingReceived, &receiver,
                     [&](const VX::VXValue &value) {
                         recording = value;
                         received = true;
                     });
    sim::MotionRecorderService *robotSide = console.embeddedRobot()
        ? console.embeddedRobot()->serviceAs<sim::MotionRecorderService>("VXMotionRecorder")
        : nullptr;
    if (interactive) {
        recorder->startToRecordInteractively(joints, poses, R::ModeDefault);
        for (int i = 0; i < poses && robotSide && !stopped; ++i) {
            console.waitUntil([&] { return stopped; }, 1000);
            try {
                robotSide->requestStorePosition();
            } catch (const std::exception &e) {
                console.err() << "error: " << e.what() << Qt::endl;
            }
        }
    } else {
        recorder->setTimeStep(0.2);
        recorder->startToRecordPeriodically(joints, {}, VX::VXValue(), poses);
    }
    if (!console.waitUntil([&] { return stopped; }, 10000 + poses * 1000))
        console.err() << "warning: the robot did not say that the recording ended" << Qt::endl;
    recorder->stopRecording();
    if (!console.waitUntil([&] { return received; }, 10000)) {
        console.err() << "error: no recording came back" << Qt::endl;
        return ExitCommandFailed;
    }
    console.out() << "Recording: " << QString::fromStdString(recording.toString(1)) << Qt::endl;
    return ExitOk;
}

} // namespace console
