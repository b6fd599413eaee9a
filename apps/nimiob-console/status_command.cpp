#include "commands.h"
#include "console.h"

#include <connection/connection.h>

namespace console {

namespace {

void row(QTextStream &out, const char *label, const QString &value)
{
    out << QString::fromLatin1(label).leftJustified(16) << value << Qt::endl;
}

} // namespace

// Connects (done by the caller), reports what the robot is and offers, runs
// the module check and the two-way test, and disconnects (done by the caller).
int statusCommand(Console &console, const QStringList &arguments)
{
    if (!arguments.isEmpty()) {
        console.err() << "error: status takes no argument" << Qt::endl;
        return ExitUsage;
    }
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
    if (!console.waitUntil([&console] { return console.connectionTestDone(); }, 20000)) {
        row(out, "Two-way test", QStringLiteral("no outcome within 20 s"));
        return ExitCommandFailed;
    }
    row(out, "Two-way test",
        console.connectionTestPassed()
            ? QStringLiteral("passed: the robot reached this desktop")
            : QStringLiteral("failed: the robot did not reach this desktop"));
    return ExitOk;
}

} // namespace console
