#include "kit.h"

#include "connection_manager_p.h"
#include "connection_p.h"

#include <QCoreApplication>
#include <QJsonDocument>
#include <QMetaObject>
#include <QPointer>
#include <QRegularExpression>

#include <atomic>
#include <cmath>
#include <memory>

#include <unistd.h>

namespace console {

namespace {

volatile std::sig_atomic_t g_interrupted = 0;

void onInterrupt(int)
{
    // A second Ctrl-C while the first is being honoured ends the process:
    // a cancellation that hangs must never hold the terminal.
    if (g_interrupted)
        _exit(ExitInterrupted);
    g_interrupted = 1;
}

} // namespace

InterruptScope::InterruptScope()
{
    g_interrupted = 0;
    m_previous = std::signal(SIGINT, onInterrupt);
}

InterruptScope::~InterruptScope()
{
    std::signal(SIGINT, m_previous);
}

bool InterruptScope::requested()
{
    return g_interrupted != 0;
}

void InterruptScope::request()
{
    g_interrupted = 1;
}

bool parseDuration(const QString &text, int &milliseconds)
{
    static const QRegularExpression form(QStringLiteral("^(\\d+(?:\\.\\d*)?|\\.\\d+)(ms|s|m)?$"));
    const QRegularExpressionMatch match = form.match(text.trimmed());
    if (!match.hasMatch())
        return false;
    const double value = match.captured(1).toDouble();
    const QString unit = match.captured(2);
    const double factor = unit == QLatin1String("ms") ? 1.0
        : unit == QLatin1String("m")                  ? 60000.0
                                                      : 1000.0;
    const double ms = std::round(value * factor);
    if (ms < 1.0 || ms > 86400000.0)
        return false;
    milliseconds = int(ms);
    return true;
}

Arguments::Arguments(Console &console, const char *command, const QStringList &arguments)
    : m_console(console), m_command(QString::fromLatin1(command)), m_words(arguments)
{ }

int Arguments::take(const char *name, bool withValue, QString *value)
{
    const QString option = QStringLiteral("--") + QString::fromLatin1(name);
    const int at = m_words.indexOf(option);
    if (at < 0)
        return 0;
    m_words.removeAt(at);
    if (!withValue)
        return 1;
    if (at >= m_words.size()) {
        fail(option + QStringLiteral(" needs a value"));
        return -1;
    }
    *value = m_words.takeAt(at);
    return 1;
}

bool Arguments::flag(const char *name)
{
    return take(name, false, nullptr) > 0;
}

bool Arguments::option(const char *name, QString &value)
{
    return take(name, true, &value) > 0;
}

bool Arguments::duration(const char *name, int &milliseconds)
{
    QString text;
    if (!option(name, text))
        return false;
    if (!parseDuration(text, milliseconds)) {
        fail(QStringLiteral("--%1 wants a duration such as 5, 2.5s or 300ms, not \"%2\"")
                 .arg(QString::fromLatin1(name), text));
        return false;
    }
    return true;
}

bool Arguments::number(const char *name, int &value, int minimum, int maximum)
{
    QString text;
    if (!option(name, text))
        return false;
    bool ok = false;
    const int n = text.toInt(&ok);
    if (!ok || n < minimum || n > maximum) {
        fail(QStringLiteral("--%1 wants a whole number from %2 to %3, not \"%4\"")
                 .arg(QString::fromLatin1(name))
                 .arg(minimum)
                 .arg(maximum)
                 .arg(text));
        return false;
    }
    value = n;
    return true;
}

QStringList Arguments::positional()
{
    QStringList words;
    for (int i = 0; i < m_words.size();) {
        if (m_words.at(i).startsWith(QLatin1String("--"))) {
            ++i;
            continue;
        }
        words << m_words.takeAt(i);
    }
    return words;
}

void Arguments::fail(const QString &message)
{
    if (m_error.isEmpty())
        m_error = message;
}

int Arguments::finish()
{
    if (m_error.isEmpty() && !m_words.isEmpty()) {
        m_error = m_words.first().startsWith(QLatin1String("--"))
            ? QStringLiteral("%1 has no option %2").arg(m_command, m_words.first())
            : QStringLiteral("%1 does not take \"%2\"").arg(m_command, m_words.first());
    }
    if (m_error.isEmpty())
        return ExitOk;
    const Command *command = findCommand(m_command);
    m_console.err() << "error: " << m_error << Qt::endl;
    if (command)
        m_console.err() << "usage: " << m_command << ' ' << command->usage << Qt::endl;
    return ExitUsage;
}

int need(Console &console, std::initializer_list<const char *> services, const char *command)
{
    if (!console.ensureConnected())
        return InterruptScope::requested() ? ExitInterrupted : ExitNoConnection;
    const boost::shared_ptr<RK::Connection> connection = RK::currentConnection(console.manager());
    if (!connection) {
        console.err() << "error: the connection to the robot was lost" << Qt::endl;
        return ExitNoConnection;
    }
    // Only the services of the library's table are listed either way;
    // another one is for the command to find through its interface.
    const QStringList unbound = connection->missingServices();
    for (const char *service : services) {
        if (unbound.contains(QLatin1String(service)))
            return missing(console, service, command);
    }
    return ExitOk;
}

int missing(Console &console, const char *service, const char *command)
{
    console.err() << "error: the robot offers no " << service << ", which " << command << " needs"
                  << Qt::endl;
    return ExitCommandFailed;
}

Waiter::Waiter(Console &console) : m_console(console)
{
    RK::ConnectionManager &manager = console.manager();
    connect(&manager, &RK::ConnectionManager::connectionLost, this, [this] { m_lost = true; });
    connect(&manager, &RK::ConnectionManager::disconnected, this, [this] { m_lost = true; });
}

void Waiter::observe(QObject *executer, const QString &service)
{
    Q_UNUSED(service)
    // By signature: the executer's class is the library's own. Its typed
    // signal tells every failure once, those found before a call is made
    // (no service, no connection) included.
    // A connection by signature queues the type by its registered name.
    qRegisterMetaType<RK::OperationError>("RK::OperationError");
    if (executer && executer->metaObject()->indexOfSignal("errorOccurred(RK::OperationError)") >= 0)
        connect(executer, SIGNAL(errorOccurred(RK::OperationError)), this,
                SLOT(onOperationError(RK::OperationError)), Qt::QueuedConnection);
}

void Waiter::onOperationError(const RK::OperationError &error)
{
    if (error.code == RK::ErrorCode::ConnectionLost)
        m_lost = true;
    m_failures.push_back(error);
}

bool Waiter::tellsOfLoss(const QString &text)
{
    return text.contains(QLatin1String("disconnected: "));
}

Outcome Waiter::wait(const std::function<bool()> &done, int timeoutMs)
{
    const size_t failuresBefore = m_failures.size();
    if (!m_console.manager().isConnected())
        m_lost = true;
    const auto ended = [&] {
        return InterruptScope::requested() || m_lost || m_failures.size() > failuresBefore
            || done();
    };
    const bool finished = m_console.waitUntil(ended, timeoutMs < 0 ? 86400000 : timeoutMs);
    if (InterruptScope::requested())
        return Outcome::Interrupted;
    if (m_lost)
        return Outcome::Lost;
    if (m_failures.size() > failuresBefore)
        return Outcome::Failed;
    return finished ? Outcome::Done : Outcome::TimedOut;
}

Outcome Waiter::drain(QObject *executer, QObject *interface, int timeoutMs)
{
    if (!executer || !interface)
        return Outcome::Failed;
    // Each thread takes its events in order: a marker that goes the way the
    // answers go (executer, interface, this thread) arrives after the
    // answers to every request queued before it.
    auto drained = std::make_shared<std::atomic<bool>>(false);
    QObject *home = QCoreApplication::instance();
    QPointer<QObject> via(interface);
    QMetaObject::invokeMethod(
        executer,
        [drained, home, via] {
            const auto arrive = [drained, home] {
                QMetaObject::invokeMethod(
                    home, [drained] { *drained = true; }, Qt::QueuedConnection);
            };
            if (via)
                QMetaObject::invokeMethod(via.data(), arrive, Qt::QueuedConnection);
            else
                arrive();
        },
        Qt::QueuedConnection);
    return wait([drained] { return drained->load(); }, timeoutMs);
}

int Waiter::fail(Outcome outcome, const QString &what)
{
    switch (outcome) {
    case Outcome::Done:
        return ExitOk;
    case Outcome::Failed:
        printFailures();
        return ExitCommandFailed;
    case Outcome::Lost:
        m_console.err() << "error: the connection to the robot was lost while waiting for " << what
                        << Qt::endl;
        return ExitNoConnection;
    case Outcome::Interrupted:
        m_console.err() << "interrupted while waiting for " << what << Qt::endl;
        return ExitInterrupted;
    case Outcome::TimedOut:
        m_console.err() << "error: no " << what << " came in time" << Qt::endl;
        return ExitCommandFailed;
    }
    return ExitCommandFailed;
}

bool Waiter::printFailures()
{
    const bool any = m_printed < m_failures.size();
    for (; m_printed < m_failures.size(); ++m_printed) {
        const RK::OperationError &e = m_failures[m_printed];
        m_console.printError({e.title, e.contents, e.details, false});
    }
    return any;
}

void printJson(Console &console, const QJsonObject &document)
{
    console.out() << QString::fromUtf8(QJsonDocument(document).toJson(QJsonDocument::Indented))
                  << Qt::flush;
}

void printJsonLine(Console &console, const QJsonObject &line)
{
    console.out() << QString::fromUtf8(QJsonDocument(line).toJson(QJsonDocument::Compact)) << '\n'
                  << Qt::flush;
}

QJsonArray jsonList(const QStringList &list)
{
    return QJsonArray::fromStringList(list);
}

Progress::Progress(QTextStream &out, bool terminal, int stepPercent)
    : m_out(out), m_terminal(terminal), m_step(stepPercent)
{ }

Progress::~Progress()
{
    clear();
}

void Progress::show(const QString &text, const QString &detail, double percent)
{
    QString line = text;
    if (!detail.isEmpty())
        line += QStringLiteral("  ") + detail;
    if (percent >= 0)
        line += QStringLiteral("  %1%").arg(percent, 0, 'f', 0);
    if (m_terminal) {
        m_out << '\r' << line.left(100).leftJustified(100) << Qt::flush;
        m_drawn = true;
        return;
    }
    // In a log: a line when the step changes what is done, and one each
    // time another step of the way is passed. What is done is the text
    // without its parenthesis, which names the file of the moment.
    const QString step = text.section(QStringLiteral(" ("), 0, 0);
    const bool newText = step != m_lastText;
    const bool further = percent >= m_nextPercent;
    if (!newText && !further)
        return;
    if (newText)
        m_lastText = step;
    if (percent >= 0) {
        while (m_nextPercent <= percent)
            m_nextPercent += m_step;
    }
    m_out << line << Qt::endl;
}

void Progress::clear()
{
    if (m_terminal && m_drawn)
        m_out << '\r' << QString().leftJustified(100) << '\r' << Qt::flush;
    m_drawn = false;
}

} // namespace console
