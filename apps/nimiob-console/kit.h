#pragma once

// What every command is built from, so that a command holds its own logic
// and nothing else: Ctrl-C, durations, the services a command needs, waiting
// for an outcome that also ends on a lost connection or Ctrl-C, the failures
// the library reports, JSON output and progress lines. Everything here lives
// on the thread that runs the command (the main thread).

#include "commands.h"
#include "console.h"

#include <connection/operation_error.h>

#include <QFuture>
#include <QJsonArray>
#include <QJsonObject>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QTextStream>

#include <csignal>
#include <functional>
#include <initializer_list>
#include <vector>

namespace console {

// Ctrl-C while one lives sets a flag that every wait of the kit reads; the
// handler that was there before comes back when it goes. The console keeps
// one around each command, so that Ctrl-C always ends the command (exit 130)
// rather than the process in the middle of a request.
class InterruptScope
{
public:
    InterruptScope();
    ~InterruptScope();
    InterruptScope(const InterruptScope &) = delete;
    InterruptScope &operator=(const InterruptScope &) = delete;

    static bool requested();
    // What Ctrl-C does; tests call it in place of the signal.
    static void request();

private:
    void (*m_previous)(int) = nullptr;
};

// "3" and "3s" are seconds, "1.5" too; "250ms" milliseconds, "2m" minutes.
// A duration from 1 ms to a day; false for anything else.
bool parseDuration(const QString &text, int &milliseconds);

// The arguments of a command, read one by one: options with a value, flags,
// and positional words. Every problem becomes one message on the console's
// error stream and ExitUsage, before anything touches the robot.
class Arguments
{
public:
    Arguments(Console &console, const char *command, const QStringList &arguments);

    // Takes "--NAME" if present.
    bool flag(const char *name);
    // Takes "--NAME VALUE" if present into `value`; a missing value is a usage error.
    bool option(const char *name, QString &value);
    // "--NAME DURATION" (see parseDuration) into `milliseconds`.
    bool duration(const char *name, int &milliseconds);
    // "--NAME N", N a whole number from `minimum` to `maximum`.
    bool number(const char *name, int &value, int minimum, int maximum);
    // What is left that does not start with "--", in order.
    QStringList positional();

    // Records a usage error with its message (the first one wins).
    void fail(const QString &message);
    // ExitOk when everything was understood; else prints the first error, or
    // names the first option nobody took, and returns ExitUsage.
    int finish();

private:
    int take(const char *name, bool withValue, QString *value);

    Console &m_console;
    QString m_command;
    QStringList m_words;
    QString m_error;
};

// Connects if the console is not connected yet, then checks that the robot
// bound every service named. ExitOk, or the exit status with its message
// printed: ExitNoConnection when no connection, ExitCommandFailed naming
// the first missing service.
int need(Console &console, std::initializer_list<const char *> services, const char *command);
// The same message for an interface the library did not make.
int missing(Console &console, const char *service, const char *command);

// How a wait ended.
enum class Outcome {
    Done,
    Failed, // the robot reported a failure (see Waiter::failures)
    Lost, // the connection ended
    Interrupted, // Ctrl-C
    TimedOut,
};

// Waits on the robot. A wait ends when its condition holds, when the
// library reports a failure of one of the observed interfaces, when the
// connection ends (the library sees a silent robot within the heartbeat's
// limit) or on Ctrl-C. One per command run; it observes from its
// construction.
class Waiter : public QObject
{
    Q_OBJECT

public:
    explicit Waiter(Console &console);

    // Observes the failures an interface reports. Today that is its
    // executer's error(title, contents, details), which nothing else
    // connects; this is the one place that reads it.
    void observe(QObject *executer, const QString &service);

    // Runs the event loop until `done` holds or one of the ends above, or
    // `timeoutMs` passes (< 0: no limit).
    Outcome wait(const std::function<bool()> &done, int timeoutMs = -1);
    // Until a future has finished.
    template<typename T>
    Outcome await(const QFuture<T> &future, int timeoutMs)
    {
        return wait([future] { return future.isFinished(); }, timeoutMs);
    }
    // Until the executer has run the requests queued to it so far and their
    // answers have come back to this thread, by way of the interface's own
    // thread (an interface re-emits its executer's signals there).
    Outcome drain(QObject *executer, QObject *interface, int timeoutMs);

    const std::vector<RK::OperationError> &failures() const { return m_failures; }
    // Whether a failure's text is the platform's word for an ended
    // connection: an answer may carry it before the manager says so.
    static bool tellsOfLoss(const QString &text);
    bool lost() const { return m_lost; }

    // The exit status of a wait that did not end with Done, its reason
    // printed: "what" says what was awaited ("an answer from VXBattery").
    int fail(Outcome outcome, const QString &what);
    // Prints the failures not printed yet; true if there was one.
    bool printFailures();

private slots:
    void onOperationError(const RK::OperationError &error);

private:
    Console &m_console;
    std::vector<RK::OperationError> m_failures;
    size_t m_printed = 0;
    bool m_lost = false;
};

// Output for scripts: a document is one JSON value printed whole; a stream
// prints one compact object a line.
void printJson(Console &console, const QJsonObject &document);
void printJsonLine(Console &console, const QJsonObject &line);
QJsonArray jsonList(const QStringList &list);

// A progress line: redrawn in place on a terminal; elsewhere (a file, a
// pipe) one whole line each time it passes another `stepPercent`.
class Progress
{
public:
    Progress(QTextStream &out, bool terminal, int stepPercent = 20);
    ~Progress();
    // What is being done, the figures of the moment, and `percent` (< 0
    // when unknown). Off a terminal a new `text` (its parenthesis aside)
    // always gets its line.
    void show(const QString &text, const QString &detail, double percent);
    // Clears the redrawn line, if any.
    void clear();

private:
    QTextStream &m_out;
    bool m_terminal;
    int m_step;
    int m_nextPercent = 0;
    QString m_lastText;
    bool m_drawn = false;
};

} // namespace console
