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
};

// What every command works with: the manager, the output streams, the robot
// when it is embedded, and a way to wait for signals without blocking them.
class Console
{
public:
    Console(Options options, QTextStream &out, QTextStream &err);
    ~Console();
    Console(const Console &) = delete;
    Console &operator=(const Console &) = delete;

    // Starts the embedded robot when there is one. False, with a message, if
    // it could not start.
    bool start();
    // Connects with a progress line. On failure prints the error and returns false.
    bool connectToRobot();
    // Asks for the disconnection and waits until the worker has closed the session.
    void disconnectFromRobot();

    RK::ConnectionManager &manager() { return *m_manager; }
    const Options &options() const { return m_options; }
    QTextStream &out() { return m_out; }
    QTextStream &err() { return m_err; }
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
    std::unique_ptr<sim::Robot> m_robot;
    std::unique_ptr<RK::ConnectionManager> m_manager;
    bool m_tested = false;
    bool m_testPassed = false;
    std::vector<Error> m_errors;
};

} // namespace console
