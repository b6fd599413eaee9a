#include "commands.h"
#include "console.h"

#include <connection/connection.h>
#include <connection/reconnection_manager.h>

#include <csignal>
#include <cstdio>
#include <functional>

#include <unistd.h>

namespace console {

namespace {

void row(QTextStream &out, const char *label, const QString &value)
{
    out << QString::fromLatin1(label).leftJustified(16) << value << Qt::endl;
}

volatile std::sig_atomic_t g_statusInterrupted = 0;

void onStatusInterrupt(int)
{
    g_statusInterrupted = 1;
}

} // namespace

// The report on the current connection; `tested` says when the two-way test
// of this connection has come, `passed` its outcome.
int report(Console &console, const std::function<bool()> &tested,
           const std::function<bool()> &passed)
{
    RK::ConnectionManager &manager = console.manager();
    QTextStream &out = console.out();
    const boost::shared_ptr<RK::Connection> connection = manager.currentConnection();
    if (!connection) {
        console.err() << "error: the connection went away" << Qt::endl;
        return ExitNoConnection;
    }

    QString ip;
    int port = 0;
    QString name;
    manager.getCurrentConnection(ip, port, name);
    row(out, "Robot", QStringLiteral("%1:%2 \"%3\"").arg(ip).arg(port).arg(name));
    row(out, "Morvane version", manager.morvaneVersion());

    QString clientVersion;
    QString robotVersion;
    const bool compatible = manager.checkMorvaneCompatibility(clientVersion, robotVersion);
    row(out, "Compatibility",
        QStringLiteral("%1 (client %2, robot %3)")
            .arg(compatible ? QStringLiteral("compatible") : QStringLiteral("NOT compatible"),
                 clientVersion, robotVersion));

    const QStringList bound = connection->boundServices();
    const QStringList missing = connection->missingServices();
    row(out, "Bound",
        QStringLiteral("%1: %2").arg(bound.size()).arg(bound.join(QStringLiteral(", "))));
    row(out, "Missing",
        missing.isEmpty()
            ? QStringLiteral("none")
            : QStringLiteral("%1: %2").arg(missing.size()).arg(missing.join(QStringLiteral(", "))));
    row(out, "DCM",
        manager.currentConnectionHasDCM() ? QStringLiteral("yes") : QStringLiteral("no"));
    std::string httpHost;
    int httpPort = 0;
    manager.getCurrentConnectionHttp(httpHost, httpPort);
    row(out, "File transfer",
        httpPort > 0 ? QStringLiteral("%1:%2").arg(QString::fromStdString(httpHost)).arg(httpPort)
                     : QStringLiteral("none"));

    // The module check speaks only when a required service is missing.
    const size_t errorsBefore = console.errors().size();
    manager.checkAvailableModules();
    if (console.errors().size() > errorsBefore) {
        const Console::Error &warning = console.errors().back();
        row(out, "Module check", warning.contents);
        for (const QString &line : warning.details.split(QLatin1Char('\n'), Qt::SkipEmptyParts))
            out << QString().leftJustified(16) << line.trimmed() << Qt::endl;
    } else {
        row(out, "Module check", QStringLiteral("every required service is present"));
    }

    // The robot has 15 s to call the desktop back.
    if (!console.waitUntil(tested, 20000)) {
        row(out, "Two-way test", QStringLiteral("no outcome within 20 s"));
        return ExitCommandFailed;
    }
    row(out, "Two-way test",
        passed() ? QStringLiteral("passed: the robot reached this desktop")
                 : QStringLiteral("failed: the robot did not reach this desktop"));
    return ExitOk;
}

// Connects (done by the caller), reports what the robot is and offers, runs
// the module check and the two-way test, and disconnects (done by the caller).
// With --stay it then follows the connection: a loss starts the reconnection
// countdown, each attempt and its result are printed, and a reconnection
// brings the report again, until Ctrl-C.
int statusCommand(Console &console, const QStringList &arguments)
{
    const bool stay = arguments == QStringList {QStringLiteral("--stay")};
    if (!arguments.isEmpty() && !stay) {
        console.err() << "error: status takes only --stay" << Qt::endl;
        return ExitUsage;
    }
    RK::ConnectionManager &manager = console.manager();
    QTextStream &out = console.out();
    int tests = 0;
    bool lastPassed = false;
    QObject receiver;
    QObject::connect(&manager, &RK::ConnectionManager::connectionTested, &receiver,
                     [&](bool success) {
                         ++tests;
                         lastPassed = success;
                     });
    const int status = report(
        console, [&console] { return console.connectionTestDone(); },
        [&console] { return console.connectionTestPassed(); });
    if (!stay)
        return status;

    RK::ReconnectionManager *reconnection = manager.reconnectionManager();
    const std::string host = console.options().host.toStdString();
    const int port = console.options().port;
    const QString name = console.options().name;
    bool reconnected = false;
    // Reconnect on a loss only: each failed attempt says disconnected() too.
    QObject::connect(&manager, &RK::ConnectionManager::connectionLost, &receiver, [&] {
        out << "The connection was lost." << Qt::endl;
        reconnection->startReconnectionProcess(host, port, name);
    });
    QObject::connect(&manager, &RK::ConnectionManager::connectionEstablished, &receiver, [&] {
        reconnection->cancelReconnectionProcess();
        out << "Reconnected." << Qt::endl;
        reconnected = true;
    });
    // The countdown is one line redrawn in place on a terminal; in a log,
    // every tenth second and the last five.
    const bool terminal = isatty(fileno(stdout)) != 0;
    bool countdownShown = false;
    QObject::connect(reconnection, &RK::ReconnectionManager::refreshTimeBeforeReconnectionRequested,
                     &receiver, [&](int seconds) {
                         if (seconds < 0)
                             return;
                         if (terminal) {
                             out << "\rreconnecting in " << seconds << " s  " << Qt::flush;
                             countdownShown = true;
                         } else if (seconds % 10 == 0 || seconds <= 5) {
                             out << "reconnecting in " << seconds << " s" << Qt::endl;
                         }
                     });
    QObject::connect(reconnection, &RK::ReconnectionManager::reconnectionRequested, &receiver, [&] {
        if (countdownShown)
            out << Qt::endl;
        countdownShown = false;
        out << "Attempt: connecting to " << QString::fromStdString(host) << ':' << port << Qt::endl;
    });
    QObject::connect(
        reconnection, &RK::ReconnectionManager::reconnectionFailed, &receiver, [&](bool byUser) {
            out << "Attempt failed" << (byUser ? " (asked for by the user)" : "");
            if (!console.errors().empty())
                out << ": " << console.errors().back().details.section(QLatin1Char('\n'), 0, 0);
            out << Qt::endl;
        });

    out << "Staying; Ctrl-C to stop." << Qt::endl;
    g_statusInterrupted = 0;
    const auto previous = std::signal(SIGINT, onStatusInterrupt);
    while (!g_statusInterrupted) {
        console.waitUntil([&] { return g_statusInterrupted != 0 || reconnected; }, 86400000);
        if (reconnected) {
            reconnected = false;
            const int testsBefore = tests;
            report(
                console, [&] { return tests > testsBefore; }, [&] { return lastPassed; });
        }
    }
    std::signal(SIGINT, previous);
    reconnection->cancelReconnectionProcess();
    return ExitOk;
}

} // namespace console
