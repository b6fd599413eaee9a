#include "commands.h"
#include "console.h"

#include <QCoreApplication>
#include <QTextStream>

#include <wz/log.h>

#include <cstdio>

#include <unistd.h>

namespace {

void usage(QTextStream &out)
{
    out << "usage: nimiob-console [--robot HOST[:PORT]] [--name NAME] [--verbose] COMMAND [ARGS]"
        << Qt::endl
        << "Without --robot a simulated robot is started in this process." << Qt::endl
        << Qt::endl
        << "commands:" << Qt::endl;
    for (const console::Command &command : console::commands()) {
        out << "  " << QString::fromLatin1(command.name).leftJustified(10) << command.usage
            << Qt::endl
            << "      " << command.summary << Qt::endl;
    }
}

// HOST or HOST:PORT; the default port is the runtime's.
bool parseRobot(const QString &text, console::Options &options)
{
    const int colon = text.lastIndexOf(QLatin1Char(':'));
    options.host = colon < 0 ? text : text.left(colon);
    if (colon >= 0) {
        bool ok = false;
        options.port = text.mid(colon + 1).toInt(&ok);
        if (!ok || options.port <= 0 || options.port > 65535)
            return false;
    }
    options.embedded = false;
    return !options.host.isEmpty();
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("nimiob-console"));
    // The runtime release this program is made for: the compatibility verdict
    // compares the robot's version with it.
    QCoreApplication::setApplicationVersion(QStringLiteral(NIMIOB_CLIENT_VERSION));

    QTextStream out(stdout);
    QTextStream err(stderr);

    console::Options options;
    bool verbose = false;
    QStringList args = QCoreApplication::arguments().mid(1);
    while (!args.isEmpty() && args.first().startsWith(QLatin1String("--"))) {
        const QString option = args.takeFirst();
        if (option == QLatin1String("--help")) {
            usage(out);
            return console::ExitOk;
        }
        if (option == QLatin1String("--verbose")) {
            verbose = true;
            continue;
        }
        if ((option == QLatin1String("--robot") || option == QLatin1String("--name"))
            && args.isEmpty()) {
            err << "error: " << option << " needs a value" << Qt::endl;
            return console::ExitUsage;
        }
        if (option == QLatin1String("--robot")) {
            if (!parseRobot(args.takeFirst(), options)) {
                err << "error: --robot wants HOST or HOST:PORT with a port from 1 to 65535"
                    << Qt::endl;
                return console::ExitUsage;
            }
        } else if (option == QLatin1String("--name")) {
            options.name = args.takeFirst();
        } else {
            err << "error: unknown option " << option << Qt::endl;
            usage(err);
            return console::ExitUsage;
        }
    }
    if (args.isEmpty()) {
        usage(err);
        return console::ExitUsage;
    }
    options.command = args.takeFirst();
    options.arguments = args;
    options.terminal = isatty(fileno(stdout)) != 0;

    // Library and robot log lines would drown the report; --verbose shows them.
    wz::log::setLogLevel(verbose ? wz::LogLevel_Debug : wz::LogLevel_Error);

    QTextStream in(stdin);
    console::Console console(options, out, err, &in);
    const int status = console::runCommand(console, options.command, options.arguments);
    if (status == console::ExitUsage && !console::findCommand(options.command))
        usage(err);
    return status;
}
