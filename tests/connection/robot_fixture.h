#pragma once

// One simulated robot per test binary, and a recorder of everything a
// connection manager tells its application, in order.

#include "connection_thread_p.h"
#include "connection_threads_manager_p.h"
#include <connection/connection_manager.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QStringList>
#include <QTimer>

#include <gtest/gtest.h>

#include "shared_robot.h"
#include "wait_until.h"

#include <chrono>
#include <functional>
#include <memory>
#include <ostream>
#include <string>

// Failed comparisons of texts show the text, not its bytes.
inline void PrintTo(const QString &text, std::ostream *os)
{
    *os << '"' << text.toStdString() << '"';
}

namespace test {

struct Error
{
    QString title;
    QString contents;
    QString details;
    bool checkWarningEnable = false;
};

// The library's timing but for the readiness step: the first readiness check
// always answers no, so every connect waits one step, and a short one keeps
// the tests from waiting it out.
inline RK::ConnectionTiming quickTiming()
{
    RK::ConnectionTiming timing;
    timing.readinessStepMs = 20;
    return timing;
}

class Recorder
{
public:
    Recorder() : manager(std::make_unique<RK::ConnectionManager>())
    {
        RK::ConnectionManager *m = manager.get();
        m->setTiming(quickTiming());
        QObject::connect(m, &RK::ConnectionManager::connecting, [this](bool on) {
            events << QStringLiteral("connecting(%1)").arg(on ? "true" : "false");
        });
        QObject::connect(m, &RK::ConnectionManager::connectionEstablished,
                         [this] { events << QStringLiteral("connectionEstablished"); });
        QObject::connect(m, &RK::ConnectionManager::connectionTested, [this](bool ok) {
            events << QStringLiteral("connectionTested(%1)").arg(ok ? "true" : "false");
        });
        QObject::connect(m, &RK::ConnectionManager::disconnected,
                         [this] { events << QStringLiteral("disconnected"); });
        QObject::connect(m, &RK::ConnectionManager::connectionLost,
                         [this] { events << QStringLiteral("connectionLost"); });
        QObject::connect(m, &RK::ConnectionManager::displayErrorRequested,
                         [this](const QString &title, const QString &contents,
                                const QString &details, bool check) {
                             errors.push_back({title, contents, details, check});
                             events << QStringLiteral("displayErrorRequested");
                         });
    }

    ~Recorder()
    {
        if (!manager)
            return;
        // Leave no worker behind for the next case.
        manager->disconnectBroker();
        test::waitUntil([this] { return workerCount() == 0; });
    }

    RK::ConnectionThreadsManager *threadsManager() const
    {
        return manager->findChild<RK::ConnectionThreadsManager *>();
    }
    int workerCount() const { return threadsManager()->threads().size(); }

    void connectTo(const sim::Robot &robot, const QString &name = QStringLiteral("test robot"))
    {
        manager->connectRemoteBroker(robot.url().host(), robot.url().port(), name);
    }

    bool waitFor(const QString &event, std::chrono::milliseconds deadline = test::patience())
    {
        return test::waitUntil([this, &event] { return events.contains(event); }, deadline);
    }
    int count(const QString &event) const { return events.count(event); }

    // Connects and waits for the outcome of the attempt and, on success, for
    // the outcome of the two-way test that follows it.
    bool connectAndWait(const sim::Robot &robot)
    {
        const QString established = QStringLiteral("connectionEstablished");
        const QString down = QStringLiteral("disconnected");
        const int establishedBefore = count(established);
        const int downBefore = count(down);
        const int testedBefore = tested();
        connectTo(robot);
        if (!test::waitUntil(
                [&] { return count(established) > establishedBefore || count(down) > downBefore; }))
            return false;
        if (count(established) == establishedBefore)
            return false;
        return test::waitUntil([&] { return tested() > testedBefore; });
    }

    int tested() const
    {
        return count(QStringLiteral("connectionTested(true)"))
            + count(QStringLiteral("connectionTested(false)"));
    }

    // Disconnects and waits until every worker has closed its session.
    bool disconnectAndWait()
    {
        manager->disconnectBroker();
        return test::waitUntil([this] { return workerCount() == 0; });
    }

    std::unique_ptr<RK::ConnectionManager> manager;
    QStringList events;
    std::vector<Error> errors;
};

// One robot for the whole binary: cases change its scenario, and each case
// starts from its own behaviour again.
class RobotTest : public SharedRobotTest
{
protected:
    void SetUp() override
    {
        robot().scenario().reset();
        robot().scenario().releaseReadiness();
    }
    void TearDown() override
    {
        robot().scenario().reset();
        robot().scenario().releaseReadiness();
        // No client of this case may linger into the next one.
        test::waitUntil([] { return robot().scenario().clients().empty(); });
    }

    static int robotPort() { return robot().url().port(); }
};

} // namespace test
