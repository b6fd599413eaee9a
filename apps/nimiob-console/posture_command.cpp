#include "commands.h"
#include "console.h"

#include <connection/robot_posture_interface.h>

#include <QObject>

namespace console {

// Prints the family of the robot's stance; with a name, goes to that
// posture (or applies it, --apply) and tells whether it was reached and how
// the family changed meanwhile.
int postureCommand(Console &console, const QStringList &arguments)
{
    QString name;
    bool apply = false;
    for (const QString &arg : arguments) {
        if (arg == QLatin1String("--apply"))
            apply = true;
        else if (name.isEmpty() && !arg.startsWith(QLatin1String("--")))
            name = arg;
        else {
            console.err() << "error: posture takes [NAME] [--apply]" << Qt::endl;
            return ExitUsage;
        }
    }
    const boost::shared_ptr<RK::RobotPostureInterface> posture
        = console.manager().robotPostureInterface();
    if (!posture) {
        console.err() << "error: the robot has no posture service (VXRobotPosture)" << Qt::endl;
        return ExitCommandFailed;
    }
    console.out() << "Family: " << posture->postureFamily().result() << Qt::endl;
    if (name.isEmpty())
        return ExitOk;

    QObject receiver;
    int answers = 0;
    bool reached = false;
    QString error;
    QObject::connect(
        posture.get(), &RK::RobotPostureInterface::postureFamilyChanged, &receiver,
        [&](const QString &family) { console.out() << "Family changed: " << family << Qt::endl; });
    QObject::connect(posture.get(), &RK::RobotPostureInterface::robotPoseReached, &receiver,
                     [&](bool ok) {
                         reached = ok;
                         ++answers;
                     });
    QObject::connect(posture.get(), &RK::RobotPostureInterface::displayErrorRequested, &receiver,
                     [&](const QString &, const QString &contents, const QString &details, bool) {
                         error = contents + QStringLiteral(": ") + details;
                         ++answers;
                     });
    if (apply)
        posture->setPose(name, 0.8f);
    else
        posture->goToPose(name, 0.8f);
    if (!console.waitUntil([&] { return answers > 0; }, 30000)) {
        console.err() << "error: no answer from the robot" << Qt::endl;
        return ExitCommandFailed;
    }
    if (!error.isEmpty()) {
        console.err() << "error: " << error << Qt::endl;
        return ExitCommandFailed;
    }
    // The family event travels by the robot's memory: give it a moment.
    console.waitUntil([] { return false; }, 300);
    console.out() << name << (reached ? " reached" : " not reached") << "; family now "
                  << posture->postureFamily().result() << Qt::endl;
    if (!reached && apply)
        console.out() << "(applying does not stiffen the motors: if the robot is limp, run 'wake' "
                         "first, or go to the posture without --apply)"
                      << Qt::endl;
    return reached ? ExitOk : ExitCommandFailed;
}

} // namespace console
