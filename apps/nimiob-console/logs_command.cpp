#include "kit.h"

#include <connection/log_listener_interface.h>

#include <sim/device_services.h>
#include <sim/robot.h>

#include <wz/log.h>

namespace console {

namespace {

bool parseLevel(const QString &text, wz::LogLevel &level)
{
    bool ok = false;
    const int n = text.toInt(&ok);
    if (!ok || n < 0 || n > 6)
        return false;
    level = static_cast<wz::LogLevel>(n);
    return true;
}

} // namespace

// Follows the robot's log: sets the level and category filters on the robot,
// then prints each message as level, category and text, and a count.
int logsCommand(Console &console, const QStringList &arguments)
{
    Arguments args(console, "logs", arguments);
    const bool clear = args.flag("clear");
    int forMs = 0;
    args.duration("for", forMs);
    QString text;
    bool setLevel = false;
    wz::LogLevel level = wz::LogLevel_Info;
    if (args.option("level", text)) {
        setLevel = true;
        if (!parseLevel(text, level))
            args.fail(QStringLiteral("--level wants 0 (silent) to 6 (debug)"));
    }
    QList<QPair<QString, wz::LogLevel>> filters;
    while (args.option("filter", text)) {
        const int eq = text.lastIndexOf(QLatin1Char('='));
        wz::LogLevel filterLevel;
        if (eq <= 0 || !parseLevel(text.mid(eq + 1), filterLevel)) {
            args.fail(QStringLiteral("--filter wants CATEGORY=LEVEL, LEVEL from 0 to 6"));
            break;
        }
        filters.append({text.left(eq), filterLevel});
    }
    if (const int status = args.finish())
        return status;
    if (const int status = need(console, {"LogManager"}, "logs"))
        return status;
    const auto logs = console.manager().logListenerInterface();
    if (!logs)
        return missing(console, "LogManager", "logs");
    QTextStream &out = console.out();
    QTextStream &info = console.info();
    Waiter waiter(console);
    waiter.observe(logs->executerObject(), QStringLiteral("LogManager"));

    // The embedded robot's log is this process's: its listener sees only
    // what passes the process's level, and this process's own standard
    // error would repeat every line. Messages are printed here, never
    // logged, which would feed them back to the listener.
    const wz::LogLevel processLevel = wz::log::logLevel();
    if (sim::Robot *robot = console.embeddedRobot()) {
        wz::log::setLogLevel(wz::LogLevel_Debug);
        wz::log::setStderrEnabled(false);
        if (auto *manager = robot->serviceAs<sim::LogManagerService>("LogManager")) {
            manager->setChatter({10, "sim.chatter", wz::LogLevel_Info});
            info << "Embedded robot: chatter at 10 messages/s in sim.chatter" << Qt::endl;
        }
    }

    const int answerMs = console.options().answerMs;
    Outcome outcome = Outcome::Done;
    if (clear)
        outcome = waiter.await(logs->clearFilters(), answerMs);
    if (setLevel && outcome == Outcome::Done)
        outcome = waiter.await(logs->setLogLevel(level), answerMs);
    for (const auto &f : filters) {
        if (outcome == Outcome::Done)
            outcome = waiter.await(logs->setCategory(f.first, f.second), answerMs);
    }
    QFuture<wz::LogLevel> verbosity = logs->logLevel();
    if (outcome == Outcome::Done)
        outcome = waiter.await(verbosity, answerMs);
    int received = 0;
    QObject receiver;
    const bool setUp = outcome == Outcome::Done;
    if (setUp) {
        info << "Robot verbosity " << int(verbosity.result()) << Qt::endl;
        QObject::connect(logs.get(), &RK::LogListenerInterface::onLogMessageReceived, &receiver,
                         [&](const wz::LogMessage &m) {
                             ++received;
                             const QString level = QString::fromLatin1(wz::logLevelName(m.level));
                             const QString category = QString::fromUtf8(m.category.c_str());
                             const QString message = QString::fromUtf8(m.message.c_str());
                             if (console.json()) {
                                 printJsonLine(console,
                                               {{QStringLiteral("level"), level},
                                                {QStringLiteral("category"), category},
                                                {QStringLiteral("message"), message}});
                                 return;
                             }
                             out << level.leftJustified(8) << category << ": " << message
                                 << Qt::endl;
                         });
        info << "Following the robot's log; "
             << (forMs > 0 ? QStringLiteral("for %1 s").arg(forMs / 1000.0)
                           : QStringLiteral("Ctrl-C to stop"))
             << Qt::endl;
        outcome = waiter.wait([] { return false; }, forMs > 0 ? forMs : -1);
        QObject::disconnect(logs.get(), nullptr, &receiver, nullptr);
    }

    if (sim::Robot *robot = console.embeddedRobot()) {
        if (auto *manager = robot->serviceAs<sim::LogManagerService>("LogManager"))
            manager->setChatter({0, "sim.chatter", wz::LogLevel_Info});
        wz::log::setStderrEnabled(true);
        wz::log::setLogLevel(processLevel);
    }
    if (!setUp)
        return waiter.fail(outcome, QStringLiteral("the robot's log settings"));
    if (outcome == Outcome::TimedOut || outcome == Outcome::Interrupted) {
        info << received << " message(s)." << Qt::endl;
        return outcome == Outcome::Interrupted ? ExitInterrupted : ExitOk;
    }
    return waiter.fail(outcome, QStringLiteral("the robot's log"));
}

} // namespace console
