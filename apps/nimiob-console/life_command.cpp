#include "kit.h"

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
    Arguments args(console, "life", arguments);
    QString focus;
    args.option("focus", focus);
    const QStringList words = args.positional();
    if (words.size() > 1 || (!focus.isEmpty() && !words.isEmpty()))
        args.fail(QStringLiteral("life takes STATE or --focus NAME"));
    const QString newState = words.value(0);
    RK::LifeState target = RK::LifeStateUnknown;
    if (!newState.isEmpty()) {
        target = RK::AutonomousLifeInterface::stateFromString(newState.toStdString());
        if (target == RK::LifeStateUnknown)
            args.fail(QStringLiteral("a life state is disabled, solitary, interactive or reflex"));
    }
    if (const int status = args.finish())
        return status;
    if (const int status = need(console, {}, "life"))
        return status;
    const boost::shared_ptr<RK::AutonomousLifeInterface> life
        = console.manager().autonomousLifeInterface();
    if (!life)
        return missing(console, "VXAutonomousLife", "life");
    Waiter waiter(console);
    const int answerMs = console.options().answerMs;
    QTextStream &out = console.out();
    const QFuture<RK::LifeState> state = life->state();
    Outcome outcome = waiter.await(state, answerMs);
    if (outcome != Outcome::Done)
        return waiter.fail(outcome, QStringLiteral("the life state"));
    const RK::LifeState before = state.result();
    out << "Life state: " << stateText(before) << Qt::endl;
    if (newState.isEmpty() && focus.isEmpty())
        return ExitOk;

    QList<RK::LifeState> reported;
    QObject receiver;
    QObject::connect(life.get(), &RK::AutonomousLifeInterface::stateChanged, &receiver,
                     [&](RK::LifeState s) { reported << s; });
    if (!focus.isEmpty()) {
        const QFuture<void> switched = life->switchFocus(focus);
        outcome = waiter.await(switched, answerMs);
        if (outcome != Outcome::Done)
            return waiter.fail(outcome, QStringLiteral("the focus switch"));
        const QString error = errorText(switched);
        if (!error.isEmpty()) {
            console.err() << "error: the focus switch to " << focus << " failed: " << error
                          << Qt::endl;
            return ExitCommandFailed;
        }
        out << "Focus on " << focus << Qt::endl;
        return ExitOk;
    }
    if (target == before) {
        out << "Already " << newState << Qt::endl;
        return ExitOk;
    }
    const QFuture<void> set = life->setState(target);
    outcome = waiter.await(set, answerMs);
    if (outcome != Outcome::Done)
        return waiter.fail(outcome, QStringLiteral("the life state change"));
    const QString error = errorText(set);
    if (!error.isEmpty()) {
        console.err() << "error: the robot refused " << newState << ": " << error << Qt::endl;
        return ExitCommandFailed;
    }
    outcome = waiter.wait([&] { return !reported.isEmpty(); }, answerMs);
    if (outcome == Outcome::TimedOut) {
        console.err() << "error: the robot did not report a change to " << newState << Qt::endl;
        return ExitCommandFailed;
    }
    if (outcome != Outcome::Done)
        return waiter.fail(outcome, QStringLiteral("the life state change"));
    out << "Robot reports: " << stateText(reported.first()) << Qt::endl;
    return reported.first() == target ? ExitOk : ExitCommandFailed;
}

} // namespace console
