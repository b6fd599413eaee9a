#include "commands.h"
#include "console.h"

#include <connection/autonomous_life_interface.h>

#include <QFuture>
#include <QObject>
#include <QUnhandledException>

namespace console {

namespace {

QString stateText(RK::LifeState state)
{
    const std::string text = state == RK::LifeStateUnknown
        ? std::string("unknown")
        : RK::AutonomousLifeInterface::stateToString(state);
    return QString::fromStdString(text);
}

// The robot's own text of a failed pool call.
QString errorText(const QFuture<void> &future)
{
    try {
        QFuture<void>(future).waitForFinished();
    } catch (const QUnhandledException &e) {
        try {
            if (e.exception())
                std::rethrow_exception(e.exception());
        } catch (const std::exception &inner) {
            return QString::fromUtf8(inner.what());
        }
        return QStringLiteral("unknown error");
    } catch (const std::exception &e) {
        return QString::fromUtf8(e.what());
    }
    return QString();
}

} // namespace

// Shows the life state; with STATE sets it, with --focus NAME hands the
// focus to a behaviour; then shows the change as the robot reports it.
int lifeCommand(Console &console, const QStringList &arguments)
{
    QString newState;
    QString focus;
    if (arguments.size() == 2 && arguments.first() == QLatin1String("--focus")) {
        focus = arguments.at(1);
    } else if (arguments.size() == 1 && !arguments.first().startsWith(QLatin1String("--"))) {
        newState = arguments.first();
    } else if (!arguments.isEmpty()) {
        console.err() << "error: life takes STATE or --focus NAME" << Qt::endl;
        return ExitUsage;
    }
    RK::LifeState target = RK::LifeStateUnknown;
    if (!newState.isEmpty()) {
        target = RK::AutonomousLifeInterface::stateFromString(newState.toStdString());
        if (target == RK::LifeStateUnknown) {
            console.err() << "error: a life state is disabled, solitary, interactive or reflex"
                          << Qt::endl;
            return ExitUsage;
        }
    }
    const boost::shared_ptr<RK::AutonomousLifeInterface> life
        = console.manager().autonomousLifeInterface();
    if (!life) {
        console.err() << "error: this robot has no VXAutonomousLife" << Qt::endl;
        return ExitCommandFailed;
    }
    QTextStream &out = console.out();
    QFuture<RK::LifeState> state = life->state();
    console.waitUntil([&] { return state.isFinished(); }, 10000);
    const RK::LifeState before = state.isFinished() ? state.result() : RK::LifeStateUnknown;
    out << "Life state: " << stateText(before) << Qt::endl;
    if (newState.isEmpty() && focus.isEmpty())
        return ExitOk;

    QList<RK::LifeState> reported;
    QObject receiver;
    QObject::connect(life.get(), &RK::AutonomousLifeInterface::stateChanged, &receiver,
                     [&](RK::LifeState s) { reported << s; });
    if (!focus.isEmpty()) {
        QFuture<void> switched = life->switchFocus(focus);
        console.waitUntil([&] { return switched.isFinished(); }, 10000);
        const QString error = errorText(switched);
        if (!error.isEmpty()) {
            out << "Focus switch to " << focus << " failed: " << error << Qt::endl;
            return ExitCommandFailed;
        }
        out << "Focus on " << focus << Qt::endl;
        return ExitOk;
    }
    if (target == before) {
        out << "Already " << newState << Qt::endl;
        return ExitOk;
    }
    QFuture<void> set = life->setState(target);
    if (!console.waitUntil([&] { return !reported.isEmpty(); }, 5000)) {
        out << "The robot did not report a change (a refusal is in the log)" << Qt::endl;
        return ExitCommandFailed;
    }
    out << "Robot reports: " << stateText(reported.first()) << Qt::endl;
    return ExitOk;
}

} // namespace console
