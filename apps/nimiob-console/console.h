#pragma once

#include <connection/connection_manager.h>

#include <QString>
#include <QStringList>
#include <QTextStream>

#include <functional>
#include <memory>
#include <vector>

namespace sim {
class Robot;
}

namespace console {

struct Options
{
    QString host;
    int port = 9559;
    QString name;
    // No --robot: a simulated robot is started in this process.
    bool embedded = true;
    QString command;
    QStringList arguments;
    // --json: data goes to standard output as JSON, and every human line
    // (connecting, disconnected) to standard error.
    bool json = false;
    // Standard output is a terminal: progress and tables are redrawn in place.
    bool terminal = false;
    // The connection's own time limits (readiness, the two-way test, polling).
    RK::ConnectionTiming timing;
    // How long a command waits, in milliseconds, for an answer the robot
    // owes it at once, for a behaviour to start, and for a cancelled
    // operation to end.
    int answerMs = 10000;
    int startMs = 15000;
    int cancelMs = 500;
};

// What every command works with: the manager, the output streams, the robot
// when it is embedded, and a way to wait for signals without blocking them.
class Console
{
public:
    // `in` is read by the commands that ask the user (record --interactive).
    Console(Options options, QTextStream &out, QTextStream &err, QTextStream *in = nullptr);
    ~Console();
    Console(const Console &) = delete;
    Console &operator=(const Console &) = delete;

    // Starts the embedded robot when there is one. False, with a message, if
    // it could not start.
    bool start();
    // Connects with a progress line. On failure prints the error and returns false.
    bool connectToRobot();
    // Starts and connects on first use, so that a command reads its
    // arguments before anything reaches the robot; true once connected.
    bool ensureConnected();
    bool connected() const { return m_connected; }
    // Asks for the disconnection and waits until the worker has closed the session.
    void disconnectFromRobot();

    RK::ConnectionManager &manager() { return *m_manager; }
    const Options &options() const { return m_options; }
    QTextStream &out() { return m_out; }
    QTextStream &err() { return m_err; }
    // Where human lines go: standard error when the output is JSON.
    QTextStream &info() { return m_options.json ? m_err : m_out; }
    QTextStream *in() { return m_in; }
    bool json() const { return m_options.json; }
    void setJson(bool on) { m_options.json = on; }
    sim::Robot *embeddedRobot() const { return m_robot.get(); }

    // Outcome of the two-way test, once connectionTested has come.
    bool connectionTestDone() const { return m_tested; }
    bool connectionTestPassed() const { return m_testPassed; }

    // The last error the manager asked to show, kept until the next one.
    struct Error
    {
        QString title;
        QString contents;
        QString details;
        bool checkWarningEnable = false;
    };
    const std::vector<Error> &errors() const { return m_errors; }
    void printError(const Error &error);
    // The cause of a failure in a user's words, where the library's text
    // speaks of its internals; empty when the text says it well enough.
    static QString plainReason(const Error &error);

    // Runs the event loop until `done` holds or `timeoutMs` passes.
    bool waitUntil(const std::function<bool()> &done, int timeoutMs);
    // True when the robot knows every name as a joint or a chain (or has no
    // motion service to ask); else says which ones it does not know.
    bool checkJoints(const QStringList &names);

private:
    Options m_options;
    QTextStream &m_out;
    QTextStream &m_err;
    QTextStream *m_in;
    bool m_connected = false;
    std::unique_ptr<sim::Robot> m_robot;
    std::unique_ptr<RK::ConnectionManager> m_manager;
    bool m_tested = false;
    bool m_testPassed = false;
    std::vector<Error> m_errors;
};

} // namespace console
