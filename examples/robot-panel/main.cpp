// robot-panel: a desktop panel for one robot over nimiob.
//
//   robot-panel [--robot HOST[:PORT]] [--name NAME] [--verbose]
//
// With --robot it connects at start; otherwise the address is typed in the
// window. Start a simulated robot with `morvane-sim` to try it.

#include "robot_panel.h"

#include <wz/log.h>

#include <QApplication>
#include <QCommandLineParser>
#include <QTimer>

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("robot-panel"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("A desktop panel for one robot."));
    parser.addHelpOption();
    const QCommandLineOption robotOption(QStringLiteral("robot"),
                                         QStringLiteral("Connects at start to HOST[:PORT]."),
                                         QStringLiteral("HOST[:PORT]"));
    const QCommandLineOption nameOption(QStringLiteral("name"),
                                        QStringLiteral("The robot's name in the panel."),
                                        QStringLiteral("NAME"), QStringLiteral("my robot"));
    const QCommandLineOption verboseOption(QStringLiteral("verbose"),
                                           QStringLiteral("The library's own log on stderr."));
    parser.addOptions({robotOption, nameOption, verboseOption});
    parser.process(app);

    // The library logs through the platform's process-wide sink, which
    // writes to standard error; an application keeps warnings and errors,
    // or routes records elsewhere with wz::log::addHandler.
    wz::log::setLogLevel(parser.isSet(verboseOption) ? wz::LogLevel_Debug : wz::LogLevel_Warning);

    panel::RobotPanel panel;
    if (parser.isSet(robotOption)) {
        const QString robot = parser.value(robotOption);
        const int colon = robot.lastIndexOf(QLatin1Char(':'));
        bool ok = true;
        const int port = colon < 0 ? 9559 : robot.mid(colon + 1).toInt(&ok);
        if (!ok || port < 1 || port > 65535) {
            qCritical("--robot wants HOST or HOST:PORT with a port from 1 to 65535");
            return 2;
        }
        panel.setRobot(colon < 0 ? robot : robot.left(colon), port, parser.value(nameOption));
        QTimer::singleShot(0, &panel, &panel::RobotPanel::connectToRobot);
    }
    panel.show();
    // Closing the window disconnects and waits for the session to close
    // before the window really goes and the loop ends.
    return app.exec();
}
