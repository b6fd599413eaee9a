#include "kit.h"

#include <connection/robot_posture_interface.h>

#include <QObject>

namespace console {

// Prints the family of the robot's stance; with a name, goes to that
// posture (or applies it, --apply) and tells whether it was reached and how
// the family changed meanwhile.
int postureCommand(Console &console, const QStringList &arguments)
{
    Arguments args(console, "posture", arguments);
    const bool apply = args.flag("apply");
    const QStringList words = args.positional();
    if (words.size() > 1)
        args.fail(QStringLiteral("posture takes one posture name"));
    const QString name = words.value(0);
    if (apply && name.isEmpty())
        args.fail(QStringLiteral("--apply wants a posture name"));
    if (const int status = args.finish())
        return status;
    if (const int status = need(console, {"VXRobotPosture"}, "posture"))
        return status;
    const boost::shared_ptr<RK::RobotPostureInterface> posture
        = console.manager().robotPostureInterface();
    if (!posture)
        return missing(console, "VXRobotPosture", "posture");
    Waiter waiter(console);
    waiter.observe(posture->executerObject(), QStringLiteral("VXRobotPosture"));
    const int answerMs = console.options().answerMs;
    QFuture<QString> family = posture->postureFamily();
    Outcome outcome = waiter.await(family, answerMs);
    if (outcome != Outcome::Done)
        return waiter.fail(outcome, QStringLiteral("the posture family"));
    const QString before = family.result();
    if (name.isEmpty()) {
        if (console.json())
            printJson(console, {{QStringLiteral("family"), before}});
        else
            console.out() << "Family: " << before << Qt::endl;
        return ExitOk;
    }
    if (!console.json())
        console.out() << "Family: " << before << Qt::endl;

    QObject receiver;
    int answers = 0;
    bool reached = false;
    QString error;
    QStringList changes;
    QObject::connect(posture.get(), &RK::RobotPostureInterface::postureFamilyChanged, &receiver,
                     [&](const QString &f) {
                         changes << f;
                         if (!console.json())
                             console.out() << "Family changed: " << f << Qt::endl;
                     });
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
    outcome = waiter.wait([&] { return answers > 0; }, 30000);
    if (outcome != Outcome::Done)
        return waiter.fail(outcome, QStringLiteral("the end of the posture change"));
    if (!error.isEmpty()) {
        console.err() << "error: " << error << Qt::endl;
        return ExitCommandFailed;
    }
    family = posture->postureFamily();
    outcome = waiter.await(family, answerMs);
    if (outcome != Outcome::Done)
        return waiter.fail(outcome, QStringLiteral("the posture family"));
    if (console.json()) {
        printJson(console,
                  {{QStringLiteral("posture"), name},
                   {QStringLiteral("reached"), reached},
                   {QStringLiteral("familyBefore"), before},
                   {QStringLiteral("family"), family.result()},
                   {QStringLiteral("familyChanges"), jsonList(changes)}});
    } else {
        console.out() << name << (reached ? " reached" : " not reached") << "; family now "
                      << family.result() << Qt::endl;
    }
    if (!reached && apply)
        console.err() << "(applying does not stiffen the motors: if the robot is limp, run 'wake' "
                         "first, or go to the posture without --apply)"
                      << Qt::endl;
    return reached ? ExitOk : ExitCommandFailed;
}

} // namespace console
