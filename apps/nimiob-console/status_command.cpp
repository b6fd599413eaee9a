#include "kit.h"

#include "connection_manager_p.h"
#include "connection_p.h"
#include <connection/reconnection_manager.h>

#include <functional>

namespace console {

namespace {

void row(QTextStream &out, const char *label, const QString &value)
{
    out << QString::fromLatin1(label).leftJustified(16) << value << Qt::endl;
}

} // namespace

// The report on the current connection; `tested` says when the two-way test
// of this connection has come, `passed` its outcome. ExitCommandFailed when
// the test failed or never ended: the robot cannot call this desktop back.
int report(Console &console, Waiter &waiter, const std::function<bool()> &tested,
           const std::function<bool()> &passed)
{
    RK::ConnectionManager &manager = console.manager();
    const boost::shared_ptr<RK::Connection> connection = RK::currentConnection(manager);
    if (!connection) {
        console.err() << "error: the connection to the robot was lost" << Qt::endl;
        return ExitNoConnection;
    }

    QString ip;
    int port = 0;
    QString name;
    manager.getCurrentConnection(ip, port, name);
    QString clientVersion;
    QString robotVersion;
    const bool compatible = manager.checkMorvaneCompatibility(clientVersion, robotVersion);
    const QStringList bound = connection->boundServices();
    const QStringList missing = connection->missingServices();
    std::string httpHost;
    int httpPort = 0;
    manager.getCurrentConnectionHttp(httpHost, httpPort);

    // The module check speaks only when a required service is missing.
    const size_t errorsBefore = console.errors().size();
    manager.checkAvailableModules();
    QStringList moduleCheck;
    if (console.errors().size() > errorsBefore) {
        const Console::Error &warning = console.errors().back();
        moduleCheck << warning.contents;
        for (const QString &line : warning.details.split(QLatin1Char('\n'), Qt::SkipEmptyParts))
            moduleCheck << line.trimmed();
    }

    // The robot has the connection's test limit to call the desktop back.
    const int limitMs = console.options().timing.connectionTestLimitMs + 5000;
    const Outcome outcome = waiter.wait(tested, limitMs);
    if (outcome == Outcome::Lost || outcome == Outcome::Interrupted)
        return waiter.fail(outcome, QStringLiteral("the two-way test"));
    const bool done = outcome == Outcome::Done;
    const bool ok = done && passed();
    const QString testText = !done ? QStringLiteral("no outcome within %1 s").arg(limitMs / 1000)
        : ok                       ? QStringLiteral("passed: the robot reached this desktop")
                                   : QStringLiteral("failed: the robot did not reach this desktop");

    if (console.json()) {
        QJsonObject robot {{QStringLiteral("host"), ip},
                           {QStringLiteral("port"), port},
                           {QStringLiteral("name"), name},
                           {QStringLiteral("version"), manager.morvaneVersion()}};
        QJsonObject compatibility {{QStringLiteral("compatible"), compatible},
                                   {QStringLiteral("client"), clientVersion},
                                   {QStringLiteral("robot"), robotVersion}};
        QJsonObject transfer;
        if (httpPort > 0)
            transfer = {{QStringLiteral("host"), QString::fromStdString(httpHost)},
                        {QStringLiteral("port"), httpPort}};
        printJson(
            console,
            {{QStringLiteral("robot"), robot},
             {QStringLiteral("compatibility"), compatibility},
             {QStringLiteral("bound"), jsonList(bound)},
             {QStringLiteral("missing"), jsonList(missing)},
             {QStringLiteral("dcm"), manager.currentConnectionHasDCM()},
             {QStringLiteral("fileTransfer"), httpPort > 0 ? QJsonValue(transfer) : QJsonValue()},
             {QStringLiteral("moduleCheck"), jsonList(moduleCheck)},
             {QStringLiteral("twoWayTest"),
              !done ? QJsonValue() : QJsonValue(ok ? "passed" : "failed")}});
        return ok ? ExitOk : ExitCommandFailed;
    }

    QTextStream &out = console.out();
    row(out, "Robot", QStringLiteral("%1:%2 \"%3\"").arg(ip).arg(port).arg(name));
    row(out, "Morvane version", manager.morvaneVersion());
    row(out, "Compatibility",
        QStringLiteral("%1 (client %2, robot %3)")
            .arg(compatible ? QStringLiteral("compatible") : QStringLiteral("NOT compatible"),
                 clientVersion, robotVersion));
    row(out, "Bound",
        QStringLiteral("%1: %2").arg(bound.size()).arg(bound.join(QStringLiteral(", "))));
    row(out, "Missing",
        missing.isEmpty()
            ? QStringLiteral("none")
            : QStringLiteral("%1: %2").arg(missing.size()).arg(missing.join(QStringLiteral(", "))));
    row(out, "DCM",
        manager.currentConnectionHasDCM() ? QStringLiteral("yes") : QStringLiteral("no"));
    row(out, "File transfer",
        httpPort > 0 ? QStringLiteral("%1:%2").arg(QString::fromStdString(httpHost)).arg(httpPort)
                     : QStringLiteral("none"));
    if (moduleCheck.isEmpty()) {
        row(out, "Module check", QStringLiteral("every required service is present"));
    } else {
        row(out, "Module check", moduleCheck.first());
        for (int i = 1; i < moduleCheck.size(); ++i)
            out << QString().leftJustified(16) << moduleCheck.at(i) << Qt::endl;
    }
    row(out, "Two-way test", testText);
    return ok ? ExitOk : ExitCommandFailed;
}

// Connects (done by the caller), reports what the robot is and offers, runs
// the module check and the two-way test, and disconnects (done by the caller).
// With --stay it then follows the connection: a loss starts the reconnection
// countdown, each attempt and its result are printed, and a reconnection
// brings the report again, until Ctrl-C.
int statusCommand(Console &console, const QStringList &arguments)
{
    Arguments args(console, "status", arguments);
    const bool stay = args.flag("stay");
    if (stay && console.json())
        args.fail(QStringLiteral("--stay follows the connection in words, not as JSON"));
    if (const int status = args.finish())
        return status;
    if (const int status = need(console, {}, "status"))
        return status;
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
    const int status = [&] {
        Waiter waiter(console);
        return report(
            console, waiter, [&console] { return console.connectionTestDone(); },
            [&console] { return console.connectionTestPassed(); });
    }();
    if (!stay || status == ExitNoConnection || status == ExitInterrupted)
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
    const bool terminal = console.options().terminal;
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
    // Losses are what this follows: the waits here end only on Ctrl-C.
    while (!InterruptScope::requested()) {
        console.waitUntil([&] { return InterruptScope::requested() || reconnected; }, 86400000);
        if (reconnected) {
            reconnected = false;
            const int testsBefore = tests;
            Waiter waiter(console);
            report(
                console, waiter, [&] { return tests > testsBefore; }, [&] { return lastPassed; });
        }
    }
    reconnection->cancelReconnectionProcess();
    return ExitInterrupted;
}

} // namespace console
