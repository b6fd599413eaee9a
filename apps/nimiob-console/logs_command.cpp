#include "commands.h"
#include "console.h"

#include <connection/log_listener_interface.h>

#include <sim/device_services.h>
#include <sim/robot.h>

#include <wz/log.h>

#include <csignal>
#include <cstdio>

namespace console {

namespace {

volatile std::sig_atomic_t g_logsInterrupted = 0;

void onLogsInterrupt(int)
{
    g_logsInterrupted = 1;
}

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
    bool setLevel = false;
    wz::LogLevel level = wz::LogLevel_Info;
    QList<QPair<QString, wz::LogLevel>> filters;
    bool clear = false;
    int forSeconds = 0;
    for (int i = 0; i < arguments.size(); ++i) {
        const QString &arg = arguments.at(i);
        const QString value = i + 1 < arguments.size() ? arguments.at(i + 1) : QString();
        if (arg == QLatin1String("--level")) {
            if (!parseLevel(value, level)) {
                console.err() << "error: --level wants 0 (silent) to 6 (debug)" << Qt::endl;
                return ExitUsage;
            }
            setLevel = true;
            ++i;
        } else if (arg == QLatin1String("--filter")) {
            const int eq = value.lastIndexOf(QLatin1Char('='));
            wz::LogLevel filterLevel;
            if (eq <= 0 || !parseLevel(value.mid(eq + 1), filterLevel)) {
                console.err() << "error: --filter wants CATEGORY=LEVEL, LEVEL from 0 to 6"
                              << Qt::endl;
                return ExitUsage;
            }
            filters.append({value.left(eq), filterLevel});
            ++i;
        } else if (arg == QLatin1String("--clear")) {
            clear = true;
        } else if (arg == QLatin1String("--for")) {
            bool ok = false;
            forSeconds = value.toInt(&ok);
            if (!ok || forSeconds < 1 || forSeconds > 86400) {
                console.err() << "error: --for wants a whole number of seconds from 1" << Qt::endl;
                return ExitUsage;
            }
            ++i;
        } else {
            console.err() << "error: logs has no argument " << arg << Qt::endl;
            return ExitUsage;
        }
    }
    const auto logs = console.manager().logListenerInterface();
    if (!logs) {
        console.err() << "error: the connection has no log listener" << Qt::endl;
        return ExitCommandFailed;
    }
    QTextStream &out = console.out();

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
            out << "Embedded robot: chatter at 10 messages/s in sim.chatter" << Qt::endl;
        }
    }

    if (clear)
        logs->clearFilters().waitForFinished();
    if (setLevel)
        logs->setLogLevel(level).waitForFinished();
    for (const auto &f : filters)
        logs->setCategory(f.first, f.second).waitForFinished();
    out << "Robot verbosity " << int(logs->logLevel().result()) << Qt::endl;

    int received = 0;
    bool lost = false;
    QObject receiver;
    QObject::connect(logs.get(), &RK::LogListenerInterface::onLogMessageReceived, &receiver,
                     [&](const wz::LogMessage &m) {
                         ++received;
                         out << QString::fromLatin1(wz::logLevelName(m.level)).leftJustified(8)
                             << QString::fromUtf8(m.category.c_str()) << ": "
                             << QString::fromUtf8(m.message.c_str()) << Qt::endl;
                     });
    QObject::connect(&console.manager(), &RK::ConnectionManager::disconnected, &receiver,
                     [&lost] { lost = true; });
    out << "Following the robot's log; "
        << (forSeconds > 0 ? QStringLiteral("for %1 s").arg(forSeconds)
                           : QStringLiteral("Ctrl-C to stop"))
        << Qt::endl;
    g_logsInterrupted = 0;
    const auto previous = std::signal(SIGINT, onLogsInterrupt);
    console.waitUntil([&] { return g_logsInterrupted != 0 || lost; },
                      forSeconds > 0 ? forSeconds * 1000 : 86400000);
    std::signal(SIGINT, previous);
    QObject::disconnect(logs.get(), nullptr, &receiver, nullptr);

    if (sim::Robot *robot = console.embeddedRobot()) {
        if (auto *manager = robot->serviceAs<sim::LogManagerService>("LogManager"))
            manager->setChatter({0, "sim.chatter", wz::LogLevel_Info});
        wz::log::setStderrEnabled(true);
        wz::log::setLogLevel(processLevel);
    }
    out << received << " message(s)." << Qt::endl;
    if (lost) {
        console.err() << "error: the connection was lost" << Qt::endl;
        return ExitNoConnection;
    }
    return ExitOk;
}

} // namespace console
