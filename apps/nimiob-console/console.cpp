#include "console.h"

#include "kit.h"

#include "connection_manager_p.h"
#include "connection_p.h"
#include <connection/platform.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>

#include <sim/robot.h>

#include <exception>

namespace console {

Console::Console(Options options, QTextStream &out, QTextStream &err, QTextStream *in)
    : m_options(std::move(options)), m_out(out), m_err(err), m_in(in)
{ }

Console::~Console()
{
    // The manager before the robot: its workers may still hold a session to it.
    m_manager.reset();
    m_robot.reset();
}

bool Console::start()
{
    if (m_options.embedded) {
        try {
            sim::RobotOptions robotOptions;
            robotOptions.lively = true;
            m_robot = std::make_unique<sim::Robot>(robotOptions);
            m_robot->start();
        } catch (const std::exception &e) {
            m_err << "error: the embedded robot could not start: " << e.what() << Qt::endl;
            return false;
        }
        m_options.host = QString::fromStdString(m_robot->url().host());
        m_options.port = m_robot->url().port();
        if (m_options.name.isEmpty())
            m_options.name = QStringLiteral("embedded robot");
    }
    if (m_options.name.isEmpty())
        m_options.name = m_options.host;

    m_manager = std::make_unique<RK::ConnectionManager>();
    m_manager->setTiming(m_options.timing);
    QObject::connect(m_manager.get(), &RK::ConnectionManager::displayErrorRequested,
                     [this](const QString &title, const QString &contents, const QString &details,
                            bool checkWarningEnable) {
                         m_errors.push_back({title, contents, details, checkWarningEnable});
                     });
    QObject::connect(m_manager.get(), &RK::ConnectionManager::connectionTested,
                     [this](bool success) {
                         m_tested = true;
                         m_testPassed = success;
                     });
    return true;
}

bool Console::connectToRobot()
{
    bool established = false;
    bool failed = false;
    QMetaObject::Connection onEstablished
        = QObject::connect(m_manager.get(), &RK::ConnectionManager::connectionEstablished,
                           [&established] { established = true; });
    QMetaObject::Connection onDisconnected = QObject::connect(
        m_manager.get(), &RK::ConnectionManager::disconnected, [&failed] { failed = true; });
    const size_t errorsBefore = m_errors.size();

    QTextStream &info = this->info();
    info << "Connecting to " << m_options.host << ':' << m_options.port << " as \""
         << m_options.name << "\" " << Qt::flush;
    QElapsedTimer elapsed;
    elapsed.start();
    // One dot per readiness step while the worker waits for the robot.
    QTimer progress;
    QObject::connect(&progress, &QTimer::timeout, [&info] { info << '.' << Qt::flush; });
    progress.start(250);

    m_manager->connectRemoteBroker(m_options.host.toStdString(), m_options.port, m_options.name);
    // A refused attempt (too many workers) never ends by itself.
    waitUntil(
        [&] {
            return established || failed || m_errors.size() > errorsBefore
                || InterruptScope::requested();
        },
        60000);
    progress.stop();
    QObject::disconnect(onEstablished);
    QObject::disconnect(onDisconnected);

    if (established) {
        info << " connected in " << QString::number(elapsed.elapsed() / 1000.0, 'f', 2) << " s"
             << Qt::endl;
        m_connected = true;
        return true;
    }
    info << (InterruptScope::requested() ? " interrupted" : " failed") << Qt::endl;
    if (InterruptScope::requested())
        return false;
    if (m_errors.size() > errorsBefore) {
        printError(m_errors.back());
        const QString why = plainReason(m_errors.back());
        if (!why.isEmpty())
            m_err << "  (" << why << ')' << Qt::endl;
    } else {
        m_err << "error: no answer from the robot within 60 s" << Qt::endl;
    }
    return false;
}

bool Console::ensureConnected()
{
    if (m_connected)
        return true;
    if (m_manager)
        return false; // one attempt per run
    return start() && connectToRobot();
}

void Console::disconnectFromRobot()
{
    if (!m_manager || !m_connected)
        return;
    m_connected = false;
    m_manager->disconnectBroker();
    // The worker closes the session after disconnected(): wait for it, so that
    // the robot sees a goodbye rather than a vanished peer.
    const RK::ConnectionManager *manager = m_manager.get();
    if (!waitUntil([manager] { return !manager->hasActiveWorkers(); }, 30000))
        m_err << "warning: the connection was still closing after 30 s" << Qt::endl;
}

QString Console::plainReason(const Error &error)
{
    // The robot takes one desktop at a time: each registers the desktop
    // module under the same name, and the robot refuses it a second time.
    if (error.details.contains(QLatin1String("service \"VXSartel\" is already registered")))
        return QStringLiteral("another desktop application is connected to this robot; "
                              "disconnect it, then try again");
    return QString();
}

void Console::printError(const Error &error)
{
    m_err << "error: " << error.title << ": " << error.contents << Qt::endl;
    if (!error.details.isEmpty()) {
        const QStringList lines = error.details.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        for (const QString &line : lines)
            m_err << "  " << line << Qt::endl;
    }
}

bool Console::checkJoints(const QStringList &names)
{
    const boost::shared_ptr<RK::Connection> connection = RK::currentConnection(*m_manager);
    const boost::shared_ptr<VX::VXMotionProxy> motion
        = connection ? connection->motion() : boost::shared_ptr<VX::VXMotionProxy>();
    if (!motion)
        return true;
    // Commands to joints are posted or their failures only logged: a name
    // the robot does not know would otherwise pass without a word.
    QStringList unknown;
    for (const QString &name : names) {
        try {
            motion->getBodyNames(name.toStdString());
        } catch (const std::exception &) {
            unknown << name;
        }
    }
    if (unknown.isEmpty())
        return true;
    QStringList known;
    try {
        for (const std::string &joint : motion->getBodyNames("Body"))
            known << QString::fromStdString(joint);
    } catch (const std::exception &) { }
    m_err << "error: the robot has no joint or chain " << unknown.join(QStringLiteral(", "));
    if (!known.isEmpty())
        m_err << "; its joints: " << known.join(QStringLiteral(", "));
    m_err << Qt::endl;
    return false;
}

bool Console::waitUntil(const std::function<bool()> &done, int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    // Wakes the wait below now and then, when no event comes to do it.
    QTimer wake;
    wake.start(50);
    while (!done()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    return true;
}

} // namespace console
